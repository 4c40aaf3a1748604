-- Logins on a socket-only server under the device's ACL file: a role works and is refused
-- the rest, its subscription delivers over the socket, a wrong password gives no connection.
local t = require "testlib"
local bmsg = require "bmsg"
local pw = os.getenv("BMSG_PASSWORD_CONTROL")
local control = bmsg.messager.new(t.socket, 0, 1, "control", pw)
local field = bmsg.messager.new(t.socket, 0, 1, "fieldtool", os.getenv("BMSG_PASSWORD_FIELDTOOL"))
control:set("mode", "enroll") control:bio_cmd_send("capture:1")
t.same("fieldtool reads, peeks, cannot pop", { "enroll", 1, n = 3 }, field:get("mode"), field:bio_cmd_size(), field:bio_cmd_recv(0))
local got
local h = control:subscribe("SYSTEM_STATUS", function(_, payload) got = payload end)
t.wait_until("a status over the socket", function() control:system_publish("up") control.check(h) return got == "up" end)
t.same("no connection", { n = 2, nil, "redis connection is NULL" }, bmsg.messager.new(t.socket, 0, 3, "control", pw .. "x"):get("mode"))
control:system_publish("exit")  -- ends the subscription, so unsubscribe returns at once
t.wait_until("the exit", function() control.check(h) return got == "exit" end)
t.same("unsubscribed", { true }, control.unsubscribe(h))
