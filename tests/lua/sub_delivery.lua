-- Subscriptions: delivery on check, handles, reports, the server killed.
local t = require "testlib"
local bmsg = require "bmsg"
local m = bmsg.messager.new("", t.port, 1)
local got = {}
local function record(channel, payload) got[#got + 1] = channel .. "=" .. payload end
local function subscribers(channel) return tonumber(t.redis("PUBSUB", "NUMSUB", channel):match("%d+$")) end
local function subscribe(channel, f, messager)
  local h = (messager or m):subscribe(channel, f or record)
  t.wait_until(channel, function() return subscribers(channel) == 1 end)
  return h
end
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

-- Nothing before check, then every message once, in order ("%%" is one '%').
local h, want = subscribe("news"), {}
for i = 1, 30 do want[i] = "news=" .. i .. "%" .. (m:publish("news", i .. "%%") or "") end
t.sleep(0.3)
t.eq(#got, 0, "nothing before check")
t.eq(delivered(30, h), table.concat(want, "|"), "in order, each once")

-- "exit" ends a subscription, which outlives its messager and channel string.
local he = subscribe("quit")
m:publish("quit", "exit")
t.wait_until("exit", function() return subscribers("quit") == 0 end)
m:publish("quit", "after exit")
local hl = subscribe(("late"):rep(2), nil, bmsg.messager.new("", t.port, 1))
collectgarbage()
m:publish("latelate", "still")
local hs = subscribe("SYSTEM_STATUS")
m:system_publish("ready")
t.eq(delivered(3, he, hl, hs), "quit=exit|latelate=still|SYSTEM_STATUS=ready", "three subscriptions")
t.same("unsubscribe of an ended subscription", { true }, m.unsubscribe(he))

-- unsubscribe drops what was queued and leaves a stale handle.
m:publish("news", "dropped")
t.same("unsubscribe", { true }, t.unsubscribe_live(m, h, "news"))
for _, f in ipairs({ m.check, m.unsubscribe }) do t.same("stale handle", { n = 2, nil, "sub_data is invalid" }, f(h)) end
local weak = setmetatable({ function(...) record(...) end }, { __mode = "v" })
t.unsubscribe_live(m, subscribe("weak", weak[1]), "weak")
collectgarbage()
t.eq(weak[1], nil, "unsubscribe lets go of the callback")

-- Reports: failing callbacks (the next message is still delivered), and a
-- subscription thread that cannot connect (it delivers nothing and ends).
local herr = subscribe("errs", function(_, p) record("errs", p == "ok" and p or error(p == "boom" and p or {}, 0)) end)
local dead = bmsg.messager.new("127.0.0.1", t.dead_port, 1)
for _, p in ipairs({ "boom", "table", "ok" }) do m:publish("errs", p) end
t.eq(delivered(1, herr), "errs=ok", "delivered after failing callbacks")
t.same("unsubscribe without a connection", { true }, m.unsubscribe(dead:subscribe("errs", record)))

-- The server killed: what was queued is still delivered, the thread ends.
local hk = subscribe("fault")
m:publish("fault", "queued")
t.sleep(0.3)
os.execute("kill -9 " .. t.redis_pid)
t.eq(delivered(1, hk), "fault=queued", "queued before the kill")
for _, x in ipairs({ hk, hl, hs, herr }) do t.same("unsubscribe of a subscription the kill ended", { true }, m.unsubscribe(x)) end
for _, c in ipairs({ { "get", { n = 2, nil, "redis reply is NULL" } }, { "bio_cmd_size", { -3 } },
  { "bio_cmd_clear", { -3 } }, { "bio_cmd_recv", { n = 1, nil } }, { "set", { "v" } } }) do
  t.same(c[1] .. " after the kill", c[2], m[c[1]](m, "k", "v"))
end
