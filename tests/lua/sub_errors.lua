-- Reports of the subscriptions: a failing callback is reported and the next
-- message still delivered; a subscription thread reports a failed
-- connection. The reports are read from a child run of this script.
local t = require "testlib"
local bmsg = require "bmsg"

if arg[1] == "child" then
  local m = bmsg.messager.new("", t.port, 1)
  local h = m:subscribe("errs", function(_, payload)
    if payload == "boom" then error("callback failed on " .. payload) end
    if payload == "table" then error({}) end
    print("delivered " .. payload)
  end)
  t.wait_subscribers("errs", 1)
  for _, p in ipairs({ "boom", "table", "after" }) do m:publish("errs", p) end
  t.sleep(0.5)
  m.check(h)
  t.unsubscribe_live(m, h, "errs")

  local dead = bmsg.messager.new("127.0.0.1", t.dead_port, 1)
  dead.unsubscribe(dead:subscribe("errs", print))
  print("child done")
  return
end

local out = t.run_child("child")
t.contains(out, "child done", "child ran to its end")
t.contains(out, "bMSG ERROR messager_check[", "callback report prefix")
t.contains(out, "Lua callback error: ", "callback report")
t.contains(out, "callback failed on boom\n", "error text of the callback")
t.contains(out, "Lua callback error: (error object is not a string)\n", "non-string error")
t.contains(out, "delivered after\n", "delivery goes on after a failing callback")
t.ok(out:find("callback failed on boom", 1, true) < out:find("delivered after", 1, true),
  "reported in delivery order")
t.contains(out, "bMSG ERROR operator()[", "thread report prefix")
t.contains(out, "Connection error: Connection refused\n", "thread connection report")
