-- The server killed (SIGKILL, by pid) under live subscriptions: delivered
-- messages stay deliverable, the threads end, unsubscribe returns at once,
-- and every method answers its failure instead of crashing or hanging.
local t = require "testlib"
local bmsg = require "bmsg"

local m = bmsg.messager.new("", t.port, 1)
local got = {}
local a = assert(m:subscribe("fault.a", function(_, p) got[#got + 1] = "a:" .. p end))
local b = assert(m:subscribe("fault.b", function(_, p) got[#got + 1] = "b:" .. p end))
t.wait_subscribers("fault.a", 1)
t.wait_subscribers("fault.b", 1)
m:publish("fault.a", "one")
m:publish("fault.b", "two")
t.sleep(0.3)

os.execute("kill -9 " .. t.redis_pid)
t.sleep(0.5)

-- Queued before the kill: still delivered, and nothing more afterwards.
m.check(a)
m.check(b)
t.eq(table.concat(got, ","), "a:one,b:two", "messages queued before the kill")
m.check(a)
t.eq(#got, 2, "nothing after the kill")

-- The threads saw the broken connection: unsubscribe does not wait.
local start = t.now()
t.eq(m.unsubscribe(a), true, "unsubscribe after the kill")
t.eq(m.unsubscribe(b), true, "unsubscribe after the kill")
t.ok(t.now() - start < 2, "unsubscribe returned at once")

t.results("get on the lost connection", { n = 2, nil, "redis reply is NULL" }, m:get("k"))
t.eq(m:bio_cmd_size(), -3, "LLEN without reply")
t.eq(m:bio_cmd_clear(), -3, "DEL without reply")
t.eq(m:bio_cmd_recv(1), nil, "receive without reply")
t.eq(m:set("k", "v"), "v", "set still returns its value")
m:publish("fault.a", "lost")
m:bio_cmd_send("lost")

-- A subscription made now cannot connect: it delivers nothing and ends.
local c = assert(m:subscribe("fault.c", function() got[#got + 1] = "c" end))
t.sleep(0.3)
m.check(c)
t.eq(m.unsubscribe(c), true, "unsubscribe of a subscription that never connected")
t.eq(#got, 2, "nothing delivered")
print("ok")
