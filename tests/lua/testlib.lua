-- Helpers of the Lua test scripts: the server, checks, redis-cli, waits.
local ffi = require "ffi"
ffi.cdef "int usleep(unsigned);"
local t = { port = tonumber(os.getenv("BMSG_TEST_PORT")), socket = os.getenv("BMSG_TEST_SOCKET"),
  dead_port = tonumber(os.getenv("BMSG_TEST_DEAD_PORT")), redis_pid = os.getenv("BMSG_TEST_REDIS_PID") }

function t.sleep(seconds) ffi.C.usleep(seconds * 1e6) end

function t.eq(got, want, what)
  if got ~= want then error(("%s: got %q, want %q"):format(what, tostring(got), tostring(want)), 2) end
end

-- Checks every result of a call: t.same("what", { n = 2, nil, "x" }, f(...)); a wanted
-- t.like(pattern) is a string that matches it.
function t.like(pattern) return { like = pattern } end
function t.same(what, want, ...)
  t.eq(select("#", ...), want.n or #want, what .. " (number of results)")
  for i = 1, select("#", ...) do
    local got, w = (select(i, ...)), want[i]
    if type(w) == "table" then got, w = type(got) == "string" and got:match(w.like) and w.like or got, w.like end
    t.eq(got, w, what .. " result " .. i)
  end
end

local function cli(...)
  local words = { "redis-cli -s", t.socket }
  for _, a in ipairs({ ... }) do words[#words + 1] = "'" .. tostring(a):gsub("'", "'\\''") .. "'" end
  return table.concat(words, " ")
end

-- One command; its output without the final newline.
function t.redis(...) return (assert(io.popen(cli(...))):read("*a"):gsub("\n$", "")) end

-- In the background: a command after `delay` s.
function t.later(delay, ...) os.execute(("(sleep %s; %s) >/dev/null &"):format(delay, cli(...))) end

-- Calls f until it returns true; fails after about ten seconds.
function t.wait_until(what, f)
  for _ = 1, 1000 do if f() then return end t.sleep(0.01) end
  error("timed out waiting for " .. what, 2)
end

return t
