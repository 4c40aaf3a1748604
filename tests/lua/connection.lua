-- A messager whose connection failed, wrong first arguments and finalised
-- objects: error results or Lua errors, never a crash.
local t = require "testlib"
local bmsg = require "bmsg"

-- No server: new still returns an object; get does not try again.
local dead = bmsg.messager.new("127.0.0.1", t.dead_port, 1)
t.eq(type(dead), "userdata", "new without a server")
for i = 1, 2 do
  t.results("get without a connection " .. i, { n = 2, nil, "redis connection is NULL" },
    dead:get("k"))
end
-- The Messager methods try to connect again and give their codes.
t.results("set without a connection", { "v" }, dead:set("k", "v"))
t.results("size without a connection", { -1 }, dead:bio_cmd_size())
t.results("recv without a connection", { n = 1, nil }, dead:bio_cmd_recv(0))
t.results("send without a connection", { n = 0 }, dead:bio_cmd_send("x"))

-- Argument 1 of the object methods must be a messager object.
local m = bmsg.messager.new("", t.port, 1)
local wrong = { 5, nil, "text", {}, io.stdout, function() end }
for _, name in ipairs({ "get", "set", "publish", "subscribe", "device_cmd_send",
  "bio_cmd_send", "bio_cmd_recv", "bio_cmd_size", "bio_cmd_clear", "bio_info_send",
  "bio_info_recv", "bio_info_size", "bio_resp_send", "bio_resp_recv", "bio_resp_size",
  "system_publish" }) do
  for i = 1, 6 do
    t.raises(name .. " on a wrong self " .. i, "bmsg.messager expected", m[name], wrong[i], "k", "v")
  end
end
t.results("m.get(5, k) did not disturb the object", { n = 1, nil }, m:get("k"))
t.raises("__gc on a number", "bmsg.messager expected", getmetatable(m).__gc, 5)

-- An object reached after its finaliser ran answers "messager is NULL".
local gone = bmsg.messager.new("", t.port, 1)
getmetatable(gone).__gc(gone)
t.results("get after __gc", { n = 2, nil, "messager is NULL" }, gone:get("k"))
t.results("set after __gc", { n = 2, nil, "messager is NULL" }, gone:set("k", 1))
t.results("subscribe after __gc", { n = 2, nil, "messager is NULL" },
  gone:subscribe("c", print))
t.results("size after __gc", { n = 2, nil, "messager is NULL" }, gone:bio_cmd_size())
gone = nil
collectgarbage()
collectgarbage()

-- Lua 5.1 keeps a finalised userdata as a key of a weak-keyed table for one
-- more cycle, so a script can still reach it.
local weak = setmetatable({}, { __mode = "k" })
weak[bmsg.messager.new("", t.port, 1)] = true
collectgarbage()
local seen = 0
for obj in pairs(weak) do
  t.results("get on a collected object", { n = 2, nil, "messager is NULL" }, obj:get("k"))
  seen = seen + 1
end
t.eq(seen, 1, "finalised object still reachable through the weak table")
collectgarbage()
