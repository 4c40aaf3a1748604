-- Subscribes, then delivers messages with check until `count` "m" payloads
-- have reached the callback; prints the monotonic time of the last one (ns).
local ffi = require "ffi"
ffi.cdef [[
struct bench_timespec { long tv_sec; long tv_nsec; };
int clock_gettime(int clock, struct bench_timespec* ts);
]]
local bmsg = require "bmsg"

local count = assert(tonumber(arg[1]), "message count")
local m = bmsg.messager.new("127.0.0.1", assert(tonumber(os.getenv("BMSG_BENCH_PORT"))), 1)
local got = 0
local h = assert(m:subscribe("bench:lua", function(_, payload)
  if payload == "m" then got = got + 1 end
end))
while got < count do m.check(h) end
local ts = ffi.new("struct bench_timespec")
ffi.C.clock_gettime(1, ts)
io.write(string.format("%d\n", tonumber(ts.tv_sec) * 1000000000 + tonumber(ts.tv_nsec)))
io.flush()
os.exit(0)
