-- Any text through the senders and publish, each text in an interpreter of its
-- own (a crash fails its row only): "%%" is one '%', blanks split, any other '%' is itself.
local t = require "testlib"
local bmsg = require "bmsg"
local lists = { device_cmd_send = "DEVICE_CMD", bio_cmd_send = "BIO_CMD",
  bio_info_send = "MAIN_BIOMETRIC_INFO", bio_resp_send = "BIOMETRIC_RESP" }
if arg[1] then
  local m = bmsg.messager.new(t.socket, 0, 1)
  for send in pairs(lists) do m[send](m, arg[1]) end
  m:system_publish(arg[1])
  m:publish("TEXT", arg[1])
  return
end

local m, got = bmsg.messager.new("127.0.0.1", t.port, 1), {}
for _, ch in ipairs({ "SYSTEM_STATUS", "TEXT" }) do
  got[ch] = { handle = m:subscribe(ch, function(_, payload) table.insert(got[ch], payload) end) }
  t.wait_until(ch .. " subscribed", function() return t.redis("PUBSUB", "NUMSUB", ch):match("1$") end)
end
local interpreter = (os.getenv("BMSG_TEST_EMULATOR") or "") .. " " .. arg[-1] .. " " .. arg[0]
for _, row in ipairs({ { "100%s", "100%s" }, { "%", "%" }, { "a%%b", "a%b" }, { "%n%n%n", "%n%n%n" },
  { "%b", "%b" }, { "%%%", "%%" }, { "50% off", "50%", "off" }, { "x  y", "x", "y" },
  { "%d%%%s %", "%d%%s", "%" }, { "" } }) do
  local status = os.execute(("%s '%s'"):format(interpreter, row[1]))
  t.eq(status == 0 or status == true, true, row[1] .. ": the interpreter's exit")
  local pushed = {}
  for i = #row, 2, -1 do pushed[#pushed + 1] = row[i] end
  for _, key in pairs(lists) do
    t.eq(t.redis("LRANGE", key, 0, -1), table.concat(pushed, "\n"), row[1] .. " on " .. key)
    t.redis("DEL", key)
  end
  -- One word is published, several make a command the server refuses.
  for ch, sub in pairs(got) do
    t.redis("PUBLISH", ch, "end")
    t.wait_until(ch .. " end", function() m.check(sub.handle) return sub[#sub] == "end" end)
    t.eq(table.concat(sub, "|"), (#row == 2 and row[2] .. "|" or "") .. "end", row[1] .. " on " .. ch)
    for i = #sub, 1, -1 do sub[i] = nil end
  end
end
