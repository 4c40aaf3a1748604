-- Helpers of the Lua test scripts: the private server the runner started,
-- assertions, a raw client (redis-cli on the server's socket), child runs.
local ffi = require "ffi"
ffi.cdef [[
int usleep(unsigned int usec);
struct bmsg_timespec { long sec; long nsec; };
int clock_gettime(int clock, struct bmsg_timespec* ts);
]]

local t = {}

t.port = assert(tonumber(os.getenv("BMSG_TEST_PORT")), "BMSG_TEST_PORT")
t.dead_port = assert(tonumber(os.getenv("BMSG_TEST_DEAD_PORT")), "BMSG_TEST_DEAD_PORT")
t.socket = assert(os.getenv("BMSG_TEST_SOCKET"), "BMSG_TEST_SOCKET")
t.lua = assert(os.getenv("BMSG_LUA"), "BMSG_LUA")
t.redis_pid = assert(tonumber(os.getenv("BMSG_TEST_REDIS_PID")), "BMSG_TEST_REDIS_PID")

function t.sleep(seconds)
  ffi.C.usleep(seconds * 1e6)
end

function t.now()
  local ts = ffi.new("struct bmsg_timespec")
  ffi.C.clock_gettime(1, ts) -- CLOCK_MONOTONIC
  return tonumber(ts.sec) + tonumber(ts.nsec) / 1e9
end

local function show(v)
  return type(v) == "string" and string.format("%q", v) or tostring(v)
end

function t.eq(got, want, what)
  if got ~= want then
    error(string.format("%s: got %s, want %s", what, show(got), show(want)), 2)
  end
end

function t.ok(cond, what)
  if not cond then error(what, 2) end
end

-- All results of a call, with their count in n.
function t.pack(...)
  return { n = select("#", ...), ... }
end

-- Checks the exact results of a call: t.results("what", {n = 2, nil, "x"}, f(...)).
function t.results(what, want, ...)
  local got = t.pack(...)
  t.eq(got.n, want.n or #want, what .. " (number of results)")
  for i = 1, got.n do
    if got[i] ~= want[i] then
      error(string.format("%s: result %d is %s, want %s", what, i, show(got[i]), show(want[i])), 2)
    end
  end
end

-- Calls f and expects it to raise a Lua error whose text contains `part`.
function t.raises(what, part, f, ...)
  local ok, err = pcall(f, ...)
  if ok then error(what .. ": no error raised", 2) end
  if part and not tostring(err):find(part, 1, true) then
    error(string.format("%s: error %s lacks %s", what, show(err), show(part)), 2)
  end
end

function t.contains(text, part, what)
  if not text:find(part, 1, true) then
    error(string.format("%s: %s not found in:\n%s", what, show(part), text), 2)
  end
end

local function quote(s)
  return "'" .. tostring(s):gsub("'", "'\\''") .. "'"
end

local function redis_cli(args)
  local words = { "redis-cli", "-s", quote(t.socket) }
  for _, a in ipairs(args) do words[#words + 1] = quote(a) end
  return table.concat(words, " ")
end

-- Runs one command through redis-cli; its output without the final newline.
function t.redis(...)
  local p = assert(io.popen(redis_cli({ ... }), "r"))
  local out = p:read("*a")
  p:close()
  return (out:gsub("\n$", ""))
end

-- Runs one command whose last argument is `data` (any bytes).
function t.redis_with(data, ...)
  local p = assert(io.popen(redis_cli({ "-x", ... }) .. " >/dev/null", "w"))
  p:write(data)
  p:close()
end

-- Waits until `channel` has n subscribers on the server.
function t.wait_subscribers(channel, n)
  local want = channel .. "\n" .. n
  for _ = 1, 1000 do
    if t.redis("PUBSUB", "NUMSUB", channel) == want then return end
    t.sleep(0.01)
  end
  error("channel " .. channel .. " never had " .. n .. " subscribers", 2)
end

-- Calls f until it returns true; fails after about ten seconds.
function t.wait_until(what, f)
  for _ = 1, 1000 do
    if f() then return end
    t.sleep(0.01)
  end
  error("timed out waiting for " .. what, 2)
end

-- Starts a shell command in the background.
function t.background(command)
  os.execute("(" .. command .. ") >/dev/null 2>&1 &")
end

-- unsubscribe waits for one more message on the channel: a background
-- publisher sends "wake" until nobody listens on it any more.
function t.unsubscribe_live(m, handle, channel)
  local publish = redis_cli({ "PUBLISH", channel, "wake" })
  t.background("for i in $(seq 300); do [ \"$(" .. publish .. ")\" = 0 ] && break; sleep 0.1; done")
  return m.unsubscribe(handle)
end

-- Pushes `value` onto `list` after `delay` seconds, from another process.
function t.push_later(delay, list, value)
  t.background("sleep " .. delay .. "; " .. redis_cli({ "LPUSH", list, value }))
end

-- Runs this script again in a child interpreter with `mode` as arg[1];
-- returns what it wrote to stdout and stderr.
function t.run_child(mode)
  local p = assert(io.popen(quote(t.lua) .. " " .. quote(arg[0]) .. " " .. quote(mode) .. " 2>&1", "r"))
  local out = p:read("*a")
  p:close()
  return out
end

return t
