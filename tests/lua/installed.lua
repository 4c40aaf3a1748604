-- The installed module: require finds bmsg.so in the staged module
-- directory (arg[1] is the stage) and it works against the server.
local t = require "testlib"

local stage = assert(arg[1], "stage directory")
local path = package.searchpath("bmsg", package.cpath)
t.ok(path and path:sub(1, #stage) == stage, "bmsg.so found under the stage: " .. tostring(path))

local bmsg = require "bmsg"
local m = bmsg.messager.new("", t.port, 1)
m:set("installed", "yes")
t.results("get through the installed module", { "yes" }, m:get("installed"))
