-- Messager objects against what the server holds, and without a server or object.
local t = require "testlib"
local bmsg = require "bmsg"
local m = bmsg.messager.new("", t.port, 1)
for _, c in ipairs({ { "journal", { true } }, { "nowhere", { n = 2, nil, t.like("%S") } }, { "default", { true } } }) do
  t.same("report_to " .. c[1], c[2], bmsg.report_to(c[1]))
end

-- set: whole numbers (also as text) as int, saturated; other numbers as float.
for _, c in ipairs({ { 3, "3" }, { -7, "-7" }, { 3.25, "3.250000" }, { "0x10", "16" }, { "2.5", "2.500000" },
  { "two words", "two words" }, { "", "" }, { 2 ^ 31 - 2, "2147483646" }, { 1e12, "2147483647" }, { 0 / 0, "nan" },
  { -2 ^ 31 + 1, "-2147483647" }, { -1e12, "-2147483648" }, { 1e12 + 0.5, "999999995904.000000" } }) do
  t.eq(tostring(m:set("k", c[1])), tostring(c[1]), "set returns its value " .. c[2])
  t.eq((t.redis("GET", "k"):gsub("^-nan", "nan")), c[2], "stored " .. c[2])
end
t.same("empty key", { n = 2, nil, "key is empty" }, m:set("", "v"))
t.eq(t.redis("EXISTS", ""), "0", "nothing stored under the empty key")

-- get: bytes whole, nil for a missing key, nil and an error reply's text.
t.redis("EVAL", "redis.call('SET', 'bin', 'a\\0b') redis.call('LPUSH', 'list', 1)", 0)
for _, c in ipairs({ { m, "bin", { "a\0b" } }, { m, "missing", { n = 1, nil } }, { m, "list", { n = 2, nil,
  "WRONGTYPE Operation against a key holding the wrong kind of value" } }, { bmsg.messager.new(t.socket, 0, 1),
  "bin", { "a\0b" } }, { bmsg.messager.new("", t.port + 65536, 1), "bin", { "a\0b" } } }) do
  t.same("get " .. c[2], c[3], c[1]:get(c[2]))
end

-- Each method on its own list (i texts on the i-th), oldest popped first.
local lists = { { "DEVICE_CMD", "device_cmd" }, { "BIO_CMD", "bio_cmd" }, { "MAIN_BIOMETRIC_INFO", "bio_info" }, { "BIOMETRIC_RESP", "bio_resp" } }
for i, l in ipairs(lists) do for j = 1, i do m[l[2] .. "_send"](m, l[1] .. j) end end
for i, l in ipairs(lists) do
  t.eq(t.redis("LLEN", l[1]), tostring(i), l[2] .. "_send pushes onto " .. l[1])
  if i > 1 then
    t.same(l[2] .. "_size", { i }, m[l[2] .. "_size"](m))
    t.same(l[2] .. "_recv", { l[1] .. 1 }, m[l[2] .. "_recv"](m, 0))
  end
end
t.same("bio_cmd_clear, then its size", { 1, 0 }, m:bio_cmd_clear(), m:bio_cmd_size())

-- Received values: up to 10239 bytes whole, an empty one is a lone nil, a
-- longer one nil and why; all are gone.
for _, v in ipairs({ "a\0b", "z", ("f"):rep(10239), ("g"):rep(10240), "" }) do
  m:bio_cmd_send(v)
  t.same(#v .. " bytes", #v == 10240 and { n = 2, nil, t.like("%S") } or { n = 1, #v > 0 and v or nil }, m:bio_cmd_recv(0))
  t.eq(t.redis("LLEN", "BIO_CMD"), "0", #v .. " bytes gone")
end

-- Time-outs: a lone argument counts, otherwise the default (1000 s) applies.
t.later(2.5, "LPUSH", "BIO_CMD", "late")
t.same("recv(-3)", { n = 1, nil }, m:bio_cmd_recv(-3))
t.same("recv(1) gives up", { n = 1, nil }, m:bio_cmd_recv(1))
t.same("recv(1, 6) waits", { "late" }, m:bio_cmd_recv(1, 6))
t.later(0.5, "LPUSH", "BIO_CMD", "later")
t.same("recv() waits", { "later" }, m:bio_cmd_recv())

-- Without a server get does not connect again; the others try, the counts give
-- their codes, the rest nil and why. A finalised object answers nil and a message.
local dead, why = bmsg.messager.new("127.0.0.1", t.dead_port, 1), { n = 2, nil, t.like("%S") }
for _, c in ipairs({ { "get", { n = 2, nil, "redis connection is NULL" } }, { "set", { "v" } },
  { "bio_cmd_size", { -1 } }, { "bio_cmd_recv", why }, { "bio_cmd_send", why }, { "publish", why } }) do
  t.same(c[1] .. " without a server", c[2], dead[c[1]](dead, "k", "v"))
end
getmetatable(dead).__gc(dead)
for name, method in pairs(getmetatable(m).__index) do
  if name ~= "check" and name ~= "unsubscribe" then
    t.eq(select(2, pcall(method, io.stdout)):match("bmsg.messager expected") ~= nil, true, name .. " on a file")
    t.same(name .. " after __gc", { n = 2, nil, "messager is NULL" }, method(dead, "k", "v"))
  end
end
