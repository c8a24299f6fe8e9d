-- Runs the xml library's script-level tests.
--
--   lua5.3 tests/libs/xml/run.lua [path/to/xml.lua]
--
-- Under a runtime that has registered the library the global `xml` is
-- tested; otherwise the library text is loaded from the given path (default:
-- the source tree). Fails with an error when any test fails.

local dir = debug.getinfo(1, "S").source:match("^@(.*/)") or "./"
local xml = rawget(_G, "xml")
  or assert(loadfile((arg and arg[1]) or dir .. "../../../lua/libs/xml.lua"))()
local check = dofile(dir .. "check.lua")

for _, suite in ipairs({ "sax_test.lua", "dom_test.lua", "write_test.lua" }) do
  assert(loadfile(dir .. suite))(xml, check)
end
check.finish()
