#!/usr/bin/env python3
"""Connections for the benchmark that wrk cannot make.

hold PORT N [METHOD]   open N keep-alive connections, each after one request (POST unless
                       METHOD), and keep them idle until standard input closes
trickle PORT BODIES HEADS SECONDS
                       BODIES clients sending a report body one byte a second, each to a name
                       of its own, and HEADS clients sending a request head one byte a second
                       (reconnecting when the server drops them), for SECONDS
"""
import asyncio
import sys

BODY = b'{"idle":true}'


def request(name, body=BODY, length=None, method="POST"):
    length = len(body) if length is None else length
    return (f"{method} /r/{name} HTTP/1.1\r\nHost: bench\r\nContent-Type: application/json\r\n"
            f"Content-Length: {length}\r\n\r\n").encode() + body


async def hold(port, count, method):
    writers = []
    for i in range(count):
        reader, writer = await asyncio.open_connection("127.0.0.1", port)
        writer.write(request(f"idle{i % 64}", method=method))
        await writer.drain()
        await reader.readuntil(b"\r\n\r\n")
        writers.append(writer)
    print("ready", flush=True)
    await asyncio.get_running_loop().run_in_executor(None, sys.stdin.read)
    for writer in writers:
        writer.close()


async def drip(port, head, payload, deadline):
    loop = asyncio.get_running_loop()
    while loop.time() < deadline:
        try:
            reader, writer = await asyncio.open_connection("127.0.0.1", port)
            writer.write(head)
            for byte in payload:
                if loop.time() >= deadline:
                    break
                await asyncio.sleep(1)
                writer.write(bytes([byte]))
                await writer.drain()
            writer.close()
        except (ConnectionError, OSError):
            await asyncio.sleep(0.1)


async def trickle(port, bodies, heads, seconds):
    deadline = asyncio.get_running_loop().time() + seconds
    tasks = [drip(port, request(f"slow{i}", b"", 100000), b"x" * 100000, deadline)
             for i in range(bodies)]
    tasks += [drip(port, b"P", b"OST /r/slowhead HTTP/1.1\r\nX-Pad: " + b"y" * 1000, deadline)
              for _ in range(heads)]
    await asyncio.gather(*tasks)


def main():
    if sys.argv[1] == "hold":
        method = sys.argv[4] if len(sys.argv) > 4 else "POST"
        asyncio.run(hold(int(sys.argv[2]), int(sys.argv[3]), method))
    else:
        asyncio.run(trickle(*map(int, sys.argv[2:6])))


if __name__ == "__main__":
    main()
