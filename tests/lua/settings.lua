-- The module table, the messager object, set (overload by value) and get
-- (conversion by reply type), checked against what Redis holds.
local t = require "testlib"
local bmsg = require "bmsg"

-- Module shape: { messager = { new } } and the registered metatable.
t.eq(type(bmsg.messager.new), "function", "messager.new")
local m = bmsg.messager.new("", t.port, 1)
local mt = getmetatable(m)
t.eq(mt, debug.getregistry()["bmsg.messager"], "metatable registered by name")
local fields = {}
for k in pairs(mt) do fields[#fields + 1] = k end
table.sort(fields)
t.eq(table.concat(fields, " "), "__gc __index", "metatable fields")
local methods = {}
for k, v in pairs(mt.__index) do
  t.eq(type(v), "function", "method " .. k)
  methods[#methods + 1] = k
end
table.sort(methods)
t.eq(table.concat(methods, " "),
  "bio_cmd_clear bio_cmd_recv bio_cmd_send bio_cmd_size bio_info_recv bio_info_send " ..
  "bio_info_size bio_resp_recv bio_resp_send bio_resp_size check device_cmd_send get " ..
  "publish set subscribe system_publish unsubscribe", "the 18 methods")

-- set picks the overload from the value: whole numbers (and strings that
-- read as them) as int, saturated; other numbers as float; text as text.
local cases = {
  { 3, "3" }, { 3.0, "3" }, { -7, "-7" }, { 3.25, "3.250000" }, { 0.1, "0.100000" },
  { "7", "7" }, { " 7", "7" }, { "0x10", "16" }, { "2.5", "2.500000" },
  { "seven", "seven" }, { "two words", "two words" }, { "", "" },
  { 1e12, "2147483647" }, { -1e12, "-2147483648" }, { math.huge, "2147483647" },
  { -math.huge, "-2147483648" }, { 2 ^ 31 - 1, "2147483647" }, { -2 ^ 31, "-2147483648" },
  { 1e12 + 0.5, "999999995904.000000" },
}
for i, c in ipairs(cases) do
  local key = "set " .. i
  t.results("set " .. tostring(c[1]) .. " returns its value", { c[1] }, m:set(key, c[1]))
  t.eq(t.redis("GET", key), c[2], "stored text of " .. tostring(c[1]))
end
local nan = m:set("nan", 0 / 0)
t.ok(nan ~= nan, "set NaN returns its value")
local stored = t.redis("GET", "nan")
t.ok(stored == "nan" or stored == "-nan", "NaN goes through the float overload: " .. stored)

-- The one result is the top of the stack, an extra argument included.
t.results("set with an extra argument", { "extra" }, m:set("x", 1, "extra"))
t.eq(t.redis("GET", "x"), "1", "value written despite the extra argument")

t.results("empty key", { n = 2, nil, "key is empty" }, m:set("", "v"))
t.eq(t.redis("EXISTS", ""), "0", "nothing written for the empty key")
t.raises("set of a boolean", "bad argument #3", m.set, m, "b", true)
t.raises("set without a value", "bad argument #3", m.set, m, "b")
t.raises("set of a table key", "bad argument #2", m.set, m, {}, 1)

-- get converts the reply: bytes with their exact length, nil for a missing
-- key (one result), nil and the server's text for an error reply.
t.redis_with("a\0b", "SET", "bin")
t.results("get of bytes with a zero", { "a\0b" }, m:get("bin"))
t.results("get of a value set from Lua", { "two words" }, m:get("set 11"))
t.results("get of a missing key", { n = 1, nil }, m:get("missing"))
t.redis("LPUSH", "alist", "x")
local r = t.pack(m:get("alist"))
t.eq(r.n, 2, "get of a list key gives two results")
t.eq(r[1], nil, "get of a list key")
t.ok(type(r[2]) == "string" and r[2]:find("^WRONGTYPE"), "server error text: " .. tostring(r[2]))
t.raises("get without a key", "bad argument #2", m.get, m)

local big = string.rep("0123456789", 100000)
t.redis_with(big, "SET", "big")
t.eq(m:get("big"), big, "get of a 1 MB value")

-- The port is narrowed to 16 bits: port + 65536 reaches the same server.
local wrapped = bmsg.messager.new("", t.port + 65536, 1)
t.results("messager on port + 65536", { "3" }, wrapped:get("set 1"))

-- A socket path ignores the port.
local unix = bmsg.messager.new(t.socket, 0, 1)
t.results("messager on the socket path", { "3" }, unix:get("set 1"))

t.raises("new without arguments", "bad argument #1", bmsg.messager.new)
t.raises("new with a bad port", "bad argument #2", bmsg.messager.new, "", "port", 1)
t.raises("new without attempts", "bad argument #3", bmsg.messager.new, "", t.port)
