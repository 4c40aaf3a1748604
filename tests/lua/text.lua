-- Any text through the senders and publish arrives as given: one list element, one
-- published message, blanks, '%' and zero bytes kept; senders say true, publishers how many.
local t = require "testlib"
local bmsg = require "bmsg"
local lists = { device_cmd_send = "DEVICE_CMD", bio_cmd_send = "BIO_CMD",
  bio_info_send = "MAIN_BIOMETRIC_INFO", bio_resp_send = "BIOMETRIC_RESP" }
local m, got = bmsg.messager.new("127.0.0.1", t.port, 1), {}
for _, ch in ipairs({ "SYSTEM_STATUS", "TEXT" }) do
  got[ch] = { handle = m:subscribe(ch, function(_, payload) table.insert(got[ch], payload) end) }
end
for _, text in ipairs({ "capture ready", "100%", "%%", "100%s", "%", "%n%n%n", "%b", "%%%", "50% off",
  "x  y", "%d%%%s %", "a\0b", " ", "" }) do
  for send, key in pairs(lists) do
    t.same(send .. " " .. text, { true }, m[send](m, text))
    t.same(text .. " on " .. key, { "1", text }, t.redis("LLEN", key), t.redis("LRANGE", key, 0, -1))
    t.redis("DEL", key)
  end
  t.same("system_publish " .. text, { 1 }, m:system_publish(text))
  t.same("publish " .. text, { 1 }, m:publish("TEXT", text))
  for ch, sub in pairs(got) do
    t.wait_until(ch .. " " .. text, function() m.check(sub.handle) return #sub > 0 end)
    t.same(text .. " on " .. ch, { text }, unpack(sub))
    sub[1] = nil
  end
end
