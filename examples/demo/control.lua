-- The demo's control script: subscribes to SYSTEM_STATUS, then sends COUNT
-- "capture:N" commands on BIO_CMD, one at a time: it waits for the capture
-- service's answer on BIOMETRIC_RESP and for the consumer's "consumer:stored:N"
-- status before the next, so no sample is overwritten before it is read.
-- Logs in as the user "control" with the password in BMSG_PASSWORD.
-- Usage: luajit control.lua SOCKET START_MS COUNT
local ffi = require "ffi"
local bmsg = require "bmsg"

ffi.cdef [[
struct timeval { long tv_sec; long tv_usec; };
int gettimeofday(struct timeval *tv, void *tz);
int usleep(unsigned int usec);
]]

local socket, start, count = arg[1], tonumber(arg[2]), tonumber(arg[3])

local function now_ms()
  local tv = ffi.new("struct timeval")
  ffi.C.gettimeofday(tv, nil)
  return tonumber(tv.tv_sec) * 1000 + math.floor(tonumber(tv.tv_usec) / 1000)
end

local function trace(text)
  io.write(string.format("%+8.3f s  %-8s %s\n", (now_ms() - start) / 1000, "control", text))
  io.flush()
end

local m = bmsg.messager.new(socket, 0, 3, "control", os.getenv("BMSG_PASSWORD"))
local _, why = m:get("demo:none")
if why then trace("cannot use the bus: " .. why) os.exit(1) end
trace("logged in to " .. socket .. " as control; its subscription uses the same socket and login")
local seen = {}
local h = m:subscribe("SYSTEM_STATUS", function(channel, payload)
  trace(string.format("status on %s: %s", channel, payload))
  seen[payload] = true
end)

-- Delivers queued statuses until `payload` has been seen or 10 s passed.
local function await_status(payload, publish)
  for _ = 1, 500 do
    if publish then m:system_publish(payload) end
    m.check(h)
    if seen[payload] then return true end
    ffi.C.usleep(20000)
  end
  trace("gave up waiting for status '" .. payload .. "'")
  return false
end

-- Our own announcement coming back shows that the subscription is live.
if not await_status("control:listening", true) then os.exit(1) end

for i = 1, count do
  local t0 = now_ms()
  m:bio_cmd_send("capture:" .. i)
  trace("sent 'capture:" .. i .. "' on BIO_CMD")
  local answer = m:bio_resp_recv(10)
  if not answer then
    trace("no answer on BIOMETRIC_RESP")
    os.exit(1)
  end
  trace(string.format("answer on BIOMETRIC_RESP: '%s' (%d ms)", answer, now_ms() - t0))
  if not await_status("consumer:stored:" .. i) then os.exit(1) end
end
trace("all " .. count .. " captures answered and stored")
m.unsubscribe(h)
os.exit(0)
