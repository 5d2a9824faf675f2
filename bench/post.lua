-- wrk script: sends SIZE-byte JSON bodies with METHOD (POST) to PREFIX/bench<i>, i spread
-- over NAMES report names. Prints one machine-readable line for run.sh.
local names = tonumber(os.getenv("NAMES") or "1")
local size = tonumber(os.getenv("SIZE") or "1024")
local prefix = os.getenv("PREFIX") or "/r"
local body = '{"pad":"' .. string.rep("x", size - 10) .. '"}'
local counter = 0

wrk.method = os.getenv("METHOD") or "POST"
wrk.body = body
wrk.headers["Content-Type"] = "application/json"

request = function()
  counter = counter + 1
  return wrk.format(nil, prefix .. "/bench" .. (counter % names))
end

done = function(summary, latency, requests)
  local errors = summary.errors.connect + summary.errors.read + summary.errors.write +
    summary.errors.timeout
  io.write(string.format("RESULT requests=%d seconds=%.3f p50_ms=%.3f p99_ms=%.3f errors=%d non2xx=%d\n",
    summary.requests, summary.duration / 1e6, latency:percentile(50) / 1000,
    latency:percentile(99) / 1000, errors, summary.errors.status))
end
