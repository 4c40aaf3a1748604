-- Handles: missing, foreign and stale handles give error results; the
-- blocking unsubscribe; a subscription whose connection failed.
local t = require "testlib"
local bmsg = require "bmsg"
local m = bmsg.messager.new("", t.port, 1)

for _, method in ipairs({ "check", "unsubscribe" }) do
  local f = m[method]
  t.results(method .. "()", { n = 2, nil, "sub_data is NULL" }, f())
  t.results(method .. "(nil)", { n = 2, nil, "sub_data is NULL" }, f(nil))
  t.results(method .. "(5)", { n = 2, nil, "sub_data is NULL" }, f(5))
  t.results(method .. "('text')", { n = 2, nil, "sub_data is NULL" }, f("text"))
  t.results(method .. " with the messager", { n = 2, nil, "sub_data is invalid" }, f(m))
  t.results(method .. " with io.stdout", { n = 2, nil, "sub_data is invalid" }, f(io.stdout))
end

t.results("callback not a function", { n = 2, nil, "callback is not a function" },
  m:subscribe("c", "print"))
t.results("callback missing", { n = 2, nil, "callback is not a function" }, m:subscribe("c"))
t.raises("subscribe without a channel", "bad argument #2", m.subscribe, m, nil, print)
t.raises("subscribe on a wrong self", "bmsg.messager expected", m.subscribe, 5, "c", print)
t.sleep(0.2)
t.eq(t.redis("PUBSUB", "NUMSUB", "c"), "c\n0", "a refused subscribe starts nothing")

-- A colon call passes the messager, not the handle.
local got = {}
local h = m:subscribe("ch", function(_, payload) got[#got + 1] = payload end)
t.wait_subscribers("ch", 1)
t.results("m:check(h)", { n = 2, nil, "sub_data is invalid" }, m:check(h))
t.results("m:unsubscribe(h)", { n = 2, nil, "sub_data is invalid" }, m:unsubscribe(h))
m:publish("ch", "one")
t.wait_until("one", function()
  m.check(h)
  return #got == 1
end)

-- unsubscribe waits for one more message, then the handle is stale.
t.results("unsubscribe", { true }, t.unsubscribe_live(m, h, "ch"))
t.wait_subscribers("ch", 0)
t.results("check on a stale handle", { n = 2, nil, "sub_data is invalid" }, m.check(h))
t.results("unsubscribe of a stale handle", { n = 2, nil, "sub_data is invalid" },
  m.unsubscribe(h))

-- A subscription whose connection failed never delivers and unsubscribes
-- at once.
local dead = bmsg.messager.new("127.0.0.1", t.dead_port, 1)
local failed = {}
local hd = dead:subscribe("ch", function(_, p) failed[#failed + 1] = p end)
t.eq(type(hd), "userdata", "subscribe on a messager without a server")
t.sleep(0.2)
dead.check(hd)
t.eq(#failed, 0, "a failed subscription delivers nothing")
t.results("unsubscribe of a failed subscription", { true }, dead.unsubscribe(hd))

-- Subscriptions always connect over TCP with the messager's address text:
-- for a messager on a socket path that is a host name that never resolves.
local unix = bmsg.messager.new(t.socket, t.port, 1)
local hu = unix:subscribe("tcp", function(_, p) failed[#failed + 1] = p end)
t.sleep(0.2)
m:publish("tcp", "lost")
unix.check(hu)
t.eq(#failed, 0, "a subscription of a socket-path messager delivers nothing")
t.results("unsubscribe of it", { true }, unix.unsubscribe(hu))

-- Unsubscribing a handle from its own callback stops that check.
got = {}
local hs
hs = m:subscribe("self", function(_, payload)
  got[#got + 1] = payload
  t.results("unsubscribe from the callback", { true }, t.unsubscribe_live(m, hs, "self"))
end)
t.wait_subscribers("self", 1)
m:publish("self", "a")
m:publish("self", "b")
t.sleep(0.5)
m.check(hs)
t.eq(table.concat(got, ","), "a", "nothing delivered after the handle was freed")
t.results("the handle is stale afterwards", { n = 2, nil, "sub_data is invalid" }, m.check(hs))
