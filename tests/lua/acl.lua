-- Logins on a socket-only server under the device's ACL file: a role works and is refused
-- the rest (nil and the server's text), its subscription delivers over the socket, a wrong
-- password gives no connection.
local t = require "testlib"
local bmsg = require "bmsg"
local function login(role, suffix)
  return bmsg.messager.new(t.socket, 0, 1, role, os.getenv("BMSG_PASSWORD_" .. role:upper()) .. (suffix or ""))
end
local as = { control = login("control"), fieldtool = login("fieldtool"), capture = login("capture") }
local got
local h = as.control:subscribe("SYSTEM_STATUS", function(_, payload) got = payload end)
local refused = { n = 2, nil, t.like("^NOPERM") }
for _, c in ipairs({ { "control", "set", { "enroll" }, "mode", "enroll" }, { "control", "bio_cmd_send", { true }, "capture:1" },
  { "fieldtool", "get", { "enroll" }, "mode" }, { "fieldtool", "bio_cmd_size", { 1 } }, { "fieldtool", "bio_cmd_recv", refused, 0 },
  { "fieldtool", "bio_cmd_clear", refused }, { "capture", "bio_cmd_size", refused }, { "control", "bio_resp_recv", { n = 1, nil }, 0 },
  { "control", "bio_info_send", refused, "x" }, { "fieldtool", "system_publish", refused, "x" },
  { "control", "publish", refused, "OTHER", "x" }, { "control", "subscribe", refused, "OTHER", print },
  { "control", "system_publish", { 1 }, "up" } }) do
  t.same(c[1] .. " " .. c[2], c[3], as[c[1]][c[2]](as[c[1]], unpack(c, 4)))
end
t.wait_until("a status over the socket", function() as.control.check(h) return got == "up" end)
t.same("unsubscribe of a quiet subscription", { true }, as.control.unsubscribe(h))
local wrong = login("control", "x")
t.same("no connection", { n = 2, nil, "redis connection is NULL" }, wrong:get("mode"))
t.same("no subscription", { n = 2, nil, t.like("^WRONGPASS") }, wrong:subscribe("SYSTEM_STATUS", print))
