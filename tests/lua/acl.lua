-- Logins against a socket-only server under the device's ACL file: roles,
-- refusals, a wrong password, subscriptions over the socket.
local t = require "testlib"
local bmsg = require "bmsg"
local pw = os.getenv("BMSG_PASSWORD_CONTROL")
local control = bmsg.messager.new(t.socket, 0, 1, "control", pw)
local field = bmsg.messager.new(t.socket, 0, 1, "fieldtool", os.getenv("BMSG_PASSWORD_FIELDTOOL"))
control:set("mode", "enroll")
t.eq(field:get("mode"), "enroll", "fieldtool reads what control wrote")
control:bio_cmd_send("capture:1")
t.eq(field:bio_cmd_size(), 1, "fieldtool sees the command")
t.eq(field:bio_cmd_recv(0), nil, "fieldtool cannot pop it")
t.eq(control:bio_cmd_size(), 1, "still queued")
local got
local h = control:subscribe("SYSTEM_STATUS", function(_, payload) got = payload end)
t.wait_until("a status over the socket", function()
  control:system_publish("up")
  control.check(h)
  return got == "up"
end)
local bad
local out, err = t.output_of(function() bad = bmsg.messager.new(t.socket, 0, 3, "control", pw .. "x") end)
t.same("no connection", { n = 2, nil, "redis connection is NULL" }, bad:get("mode"))
t.eq(select(2, out:gsub("AUTH refused: WRONGPASS", "")), 1, "one report: " .. out)
t.eq((out .. err):find(pw, 1, true), nil, "password printed")
t.same("default user is off", { n = 2, nil, "NOAUTH Authentication required." },
  bmsg.messager.new(t.socket, 0, 1):get("mode"))
os.exit(0)
