-- The installed module: require finds bmsg.so under the stage (arg[1]).
local t = require "testlib"
local path = package.searchpath("bmsg", package.cpath)
t.eq(path and path:sub(1, #arg[1]), arg[1], "bmsg.so found under the stage")
t.same("get through the installed module", { n = 1, nil }, require("bmsg").messager.new("", t.port, 1):get("k"))
