-- Subscriptions: delivery on check, handles, reports, the server killed.
local t = require "testlib"
local bmsg = require "bmsg"
local m = bmsg.messager.new("", t.port, 1)
local got = {}
local function record(channel, payload) got[#got + 1] = channel .. "=" .. payload end
local function threads() return assert(io.popen("ls /proc/$PPID/task | wc -l")):read("*n") end
-- Checks the handles until n messages arrived; what they were.
local function delivered(n, ...)
  local handles, all = { ... }
  t.wait_until(n .. " messages", function()
    for _, h in ipairs(handles) do t.same("check", { n = 0 }, m.check(h)) end
    return #got >= n
  end)
  all, got = table.concat(got, "|"), {}
  return all
end

for _, method in ipairs({ "check", "unsubscribe" }) do
  for _, c in ipairs({ { 5, "NULL" }, { m, "invalid" }, { io.stdout, "invalid" } }) do
    t.same(method .. " of " .. tostring(c[1]), { n = 2, nil, "sub_data is " .. c[2] }, m[method](c[1]))
  end
end
t.same("callback not a function", { n = 2, nil, "callback is not a function" }, m:subscribe("c", "print"))

-- Nothing before check, then every message once, in order: those published as
-- soon as subscribe returned, then a burst from another connection while check runs.
local h, want = m:subscribe("news", record), {}
local started = threads() - 1  -- after the first thread, which a sanitizer may follow with its own
for i = 1, 30 do
  want[i] = "news=" .. i .. "%%"
  t.same("publish " .. i, { 1 }, m:publish("news", i .. "%%"))
end
for i = 1, 3000 do want[30 + i] = "news=" .. i end
t.later(0.35, "EVAL", "for i = 1, 3000 do redis.call('PUBLISH', 'news', i) end", 0)
t.sleep(0.3)
t.eq(#got, 0, "nothing before check")
t.eq(delivered(3030, h), table.concat(want, "|"), "in order, each once")

-- "exit" is the last message queued; a subscription outlives its messager and channel string.
local he = m:subscribe("quit", record)
m:publish("quit", "exit")
m:publish("quit", "after exit")
local hl = bmsg.messager.new("", t.port, 1):subscribe(("late"):rep(2), record)
collectgarbage()
m:publish("latelate", "still")
local hs = m:subscribe("SYSTEM_STATUS", record)
m:system_publish("ready")
t.sleep(0.3)
t.eq(delivered(3, he, hl, hs), "quit=exit|latelate=still|SYSTEM_STATUS=ready", "three subscriptions")
t.same("unsubscribe of an ended subscription", { true }, m.unsubscribe(he))

-- unsubscribe of a quiet subscription returns at once, drops what was queued and
-- leaves a stale handle; it and a failed subscribe let go of the callback.
m:publish("news", "dropped")
t.same("unsubscribe", { true }, m.unsubscribe(h))
for _, f in ipairs({ m.check, m.unsubscribe }) do t.same("stale handle", { n = 2, nil, "sub_data is invalid" }, f(h)) end
local dead = bmsg.messager.new("127.0.0.1", t.dead_port, 1)
local weak = setmetatable({ function(...) record(...) end, function(...) record(...) end }, { __mode = "v" })
m.unsubscribe(m:subscribe("weak", weak[1]))
t.same("subscribe without a connection", { n = 2, nil, t.like("%S") }, dead:subscribe("errs", weak[2]))
collectgarbage()
t.same("callbacks let go", { n = 2 }, weak[1], weak[2])

-- Failing callbacks are reported and the next message is still delivered.
local herr = m:subscribe("errs", function(_, p) record("errs", p == "ok" and p or error(p == "boom" and p or {}, 0)) end)
for _, p in ipairs({ "boom", "table", "ok" }) do m:publish("errs", p) end
t.eq(delivered(1, herr), "errs=ok", "delivered after failing callbacks")
t.eq(threads(), started + 3, "a thread for each live subscription (hl, hs, herr) only")

-- The server killed: what was queued is still delivered, the thread ends.
local hk = m:subscribe("fault", record)
m:publish("fault", "queued")
t.sleep(0.3)
os.execute("kill -9 " .. t.redis_pid)
t.eq(delivered(1, hk), "fault=queued", "queued before the kill")
for _, x in ipairs({ hk, hl, hs, herr }) do t.same("unsubscribe of a subscription the kill ended", { true }, m.unsubscribe(x)) end
for _, c in ipairs({ { "get", { n = 2, nil, "redis reply is NULL" } }, { "bio_cmd_size", { -3 } },
  { "bio_cmd_clear", { -3 } }, { "bio_cmd_recv", { n = 2, nil, t.like("%S") } }, { "set", { "v" } } }) do
  t.same(c[1] .. " after the kill", c[2], m[c[1]](m, "k", "v"))
end
