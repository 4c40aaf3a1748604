-- The named lists: senders (the Lua string is the format), receivers with
-- their timeout rules and 10240-byte buffer, sizes and clear.
local t = require "testlib"
local bmsg = require "bmsg"
local m = bmsg.messager.new("", t.port, 1)

t.results("send gives nothing back", { n = 0 }, m:bio_cmd_send("first"))
m:bio_cmd_send("second")
t.results("size", { 2 }, m:bio_cmd_size())
t.results("first in, first out", { "first" }, m:bio_cmd_recv(0))
t.results("then the second", { "second" }, m:bio_cmd_recv(0))
t.results("empty list", { n = 1, nil }, m:bio_cmd_recv(0))

-- The text is a format: blanks split it into elements, "%%" is one '%'.
m:bio_cmd_send("x y z")
t.results("three elements", { 3 }, m:bio_cmd_size())
for _, want in ipairs({ "x", "y", "z" }) do
  t.results("split element " .. want, { want }, m:bio_cmd_recv(0))
end
m:bio_cmd_send("100%%")
t.results("doubled percent sign", { "100%" }, m:bio_cmd_recv(0))

t.results("clear of a missing list", { 0 }, m:bio_cmd_clear())
m:bio_cmd_send("a")
t.results("clear of a list", { 1 }, m:bio_cmd_clear())
t.results("size after clear", { 0 }, m:bio_cmd_size())

-- Each method works on its own named list: every list gets a different
-- number of elements, so a method on the wrong list shows.
local lists = {
  { "DEVICE_CMD", "device_cmd" }, { "BIO_CMD", "bio_cmd" },
  { "MAIN_BIOMETRIC_INFO", "bio_info" }, { "BIOMETRIC_RESP", "bio_resp" },
}
for i, l in ipairs(lists) do
  for k = 1, i do m[l[2] .. "_send"](m, l[2] .. k) end
  t.eq(t.redis("LLEN", l[1]), tostring(i), l[2] .. "_send pushes onto " .. l[1])
end
for i, l in ipairs(lists) do
  if m[l[2] .. "_size"] then
    t.results(l[2] .. "_size counts " .. l[1], { i }, m[l[2] .. "_size"](m))
    t.results(l[2] .. "_recv pops from " .. l[1], { l[2] .. "1" }, m[l[2] .. "_recv"](m, 0))
    t.results(l[2] .. "_size after one recv", { i - 1 }, m[l[2] .. "_size"](m))
  end
end
t.results("bio_cmd_clear clears BIO_CMD", { 1 }, m:bio_cmd_clear())
t.eq(t.redis("LLEN", "BIOMETRIC_RESP"), "3", "and leaves the others")
for _, l in ipairs(lists) do t.redis("DEL", l[1]) end

-- Values as pushed by another client: bytes kept, 10239 bytes fit, 10240
-- bytes do not and are gone, an empty value reads as nil and is gone.
t.redis_with("a\0b", "LPUSH", "BIO_CMD")
t.results("value with a zero byte", { "a\0b" }, m:bio_cmd_recv(0))
local fits = string.rep("f", 10239)
t.redis_with(fits, "LPUSH", "BIO_CMD")
t.results("10239 bytes", { fits }, m:bio_cmd_recv(0))
t.redis_with(string.rep("g", 10240), "LPUSH", "BIO_CMD")
t.results("10240 bytes", { n = 1, nil }, m:bio_cmd_recv(0))
t.results("the long value is gone", { 0 }, m:bio_cmd_size())
t.redis("LPUSH", "BIO_CMD", "")
t.results("empty value", { n = 1, nil }, m:bio_cmd_recv(0))
t.results("the empty value is gone", { 0 }, m:bio_cmd_size())

-- Timeout rules: 0 or less pops without waiting, a positive value waits
-- that many seconds; only a lone argument counts, otherwise 1000 applies.
local start = t.now()
t.results("recv(0) on an empty list", { n = 1, nil }, m:bio_cmd_recv(0))
t.results("recv(-3) on an empty list", { n = 1, nil }, m:bio_cmd_recv(-3))
t.ok(t.now() - start < 0.9, "recv(0) and recv(-3) do not wait")
start = t.now()
t.results("recv(1) on an empty list", { n = 1, nil }, m:bio_cmd_recv(1))
t.ok(t.now() - start >= 0.9, "recv(1) waits a second")

t.push_later(2, "BIO_CMD", "late")
start = t.now()
t.results("recv(1, 6) waits past one second", { "late" }, m:bio_cmd_recv(1, 6))
t.ok(t.now() - start >= 1.5, "recv(1, 6) used the default timeout")
t.push_later(2, "BIOMETRIC_RESP", "later")
t.results("recv() waits with the default timeout", { "later" }, m:bio_resp_recv())

m:bio_cmd_send("waiting")
t.results("extra arguments are not checked", { "waiting" }, m:bio_cmd_recv("abc", {}))
t.raises("a lone timeout must be a number", "bad argument #2", m.bio_cmd_recv, m, "abc")
t.raises("a sender needs a string", "bad argument #2", m.bio_cmd_send, m)
