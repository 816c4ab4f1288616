-- wrk script of bench/webapi-load.sh: "status" and "get_report" in turn,
-- as a logged-in administrator; counts every answer that is not a success.
local headers = {
  ["Cookie"] = os.getenv("VELA_COOKIE"),
  ["X-Vela-CSRF"] = os.getenv("VELA_CSRF"),
  ["Content-Type"] = "application/json",
}
local calls = {
  wrk.format("POST", "/api/VELA.Snap.Usage.Share/1/status", headers,
             '{"additional":["processed_in_bytes","estimated_in_bytes"]}'),
  wrk.format("POST", "/api/VELA.Snap.Usage.Share/1/get_report", headers,
             '{"share_name":"' .. os.getenv("VELA_SHARE") .. '"}'),
}
local sent = 0
failures = 0

function request()
  sent = sent + 1
  return calls[sent % 2 + 1]
end

function response(status, _, body)
  if status ~= 200 or not body:find('"success":true', 1, true) then failures = failures + 1 end
end

local threads = {}
function setup(thread) table.insert(threads, thread) end

function done(summary, latency)
  local failed = 0
  for _, thread in ipairs(threads) do failed = failed + thread:get("failures") end
  local e = summary.errors
  local seconds = summary.duration / 1e6
  io.write(string.format("requests: %d in %.1f s\n", summary.requests, seconds))
  io.write(string.format("requests per second: %.0f\n", summary.requests / seconds))
  io.write(string.format("latency: p50 %.2f ms, p99 %.2f ms, max %.2f ms\n",
                         latency:percentile(50) / 1000, latency:percentile(99) / 1000, latency.max / 1000))
  local errors = e.connect + e.read + e.write + e.timeout + e.status + failed
  io.write(string.format("errors: %d (connect %d, read %d, write %d, timeout %d, HTTP status %d, failed answers %d)\n",
                         errors, e.connect, e.read, e.write, e.timeout, e.status, failed))
  -- One line for the comparison table of bench/webapi-load.sh.
  io.write(string.format("figures: %.0f %.2f %.2f %.2f %d %d\n", summary.requests / seconds,
                         latency:percentile(50) / 1000, latency:percentile(99) / 1000, latency.max / 1000,
                         errors, summary.requests))
end
