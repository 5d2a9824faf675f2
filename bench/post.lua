-- wrk script: POSTs 1 KiB JSON reports, spread over NAMES report names (default 1).
local names = tonumber(os.getenv("NAMES") or "1")
local body = '{"pad":"' .. string.rep("x", 1024 - 10) .. '"}'
local counter = 0

wrk.method = "POST"
wrk.body = body
wrk.headers["Content-Type"] = "application/json"

request = function()
  counter = counter + 1
  return wrk.format(nil, "/bench" .. (counter % names))
end

done = function(summary, latency, requests)
  io.write(string.format("reports/s %.0f  p50 %.2f ms  p99 %.2f ms  errors %d\n",
    summary.requests / (summary.duration / 1e6), latency:percentile(50) / 1000,
    latency:percentile(99) / 1000,
    summary.errors.status + summary.errors.connect + summary.errors.read +
    summary.errors.write + summary.errors.timeout))
end
