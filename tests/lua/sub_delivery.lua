-- Subscriptions deliver on check only, in publication order, up to and
-- including an "exit" payload, and outlive the messager that made them.
local t = require "testlib"
local bmsg = require "bmsg"
local m = bmsg.messager.new("", t.port, 1)

local got = {}
local function record(channel, payload)
  got[#got + 1] = channel .. "=" .. payload
end
local function take()
  local all = table.concat(got, "|")
  got = {}
  return all
end

local h = m:subscribe("news", record)
t.eq(type(h), "userdata", "subscribe returns a handle")
t.eq(getmetatable(h), nil, "the handle has no metatable")
t.wait_subscribers("news", 1)

-- publish passes the text as the format: "%%" is one '%', and a text with
-- blanks becomes extra arguments that the server refuses.
t.results("publish gives nothing back", { n = 0 }, m:publish("news", "one"))
m:publish("news", "two%%")
m:publish("news", "not sent")
t.redis("PUBLISH", "news", "three with blanks")
t.redis_with("cut\0here", "PUBLISH", "news")
t.sleep(0.5)
t.eq(#got, 0, "nothing is delivered before check")
t.results("check gives nothing back", { n = 0 }, m.check(h))
t.eq(take(), "news=one|news=two%|news=three with blanks|news=cut", "one check, in order")
m.check(h)
t.eq(take(), "", "a second check delivers nothing new")

for i = 1, 50 do m:publish("news", "n" .. i) end
t.wait_until("fifty messages", function()
  m.check(h)
  return #got == 50
end)
for i = 1, 50 do t.eq(got[i], "news=n" .. i, "message " .. i) end
take()

-- system_publish goes to SYSTEM_STATUS.
local hs = m:subscribe("SYSTEM_STATUS", record)
t.wait_subscribers("SYSTEM_STATUS", 1)
m:system_publish("ready")
t.wait_until("status", function()
  m.check(hs)
  return #got > 0
end)
t.eq(take(), "SYSTEM_STATUS=ready", "system_publish")

-- The subscription keeps running after its messager is collected, and the
-- channel name it was given is its own copy.
local hl
do
  local other = bmsg.messager.new("", t.port, 1)
  hl = other:subscribe(("late"):rep(2), record)
end
collectgarbage()
collectgarbage()
t.wait_subscribers("latelate", 1)
m:publish("latelate", "still")
t.wait_until("message after collection", function()
  m.check(hl)
  return #got > 0
end)
t.eq(take(), "latelate=still", "subscription outlives its messager")

-- "exit" is delivered and ends the subscription: nothing after it arrives.
local he = m:subscribe("quit", record)
t.wait_subscribers("quit", 1)
m:publish("quit", "a")
m:publish("quit", "exit")
m:publish("quit", "b")
t.wait_subscribers("quit", 0)
m:publish("quit", "c")
m.check(he)
t.eq(take(), "quit=a|quit=exit", "delivered up to exit")
t.results("unsubscribe of an ended subscription", { true }, m.unsubscribe(he))

t.results("unsubscribe news", { true }, t.unsubscribe_live(m, h, "news"))
t.results("unsubscribe status", { true }, t.unsubscribe_live(m, hs, "SYSTEM_STATUS"))
t.results("unsubscribe late", { true }, t.unsubscribe_live(m, hl, "latelate"))
t.eq(take(), "", "messages queued at unsubscribe are dropped")
