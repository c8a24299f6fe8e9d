-- Runs the xml script suites; raises on the first failing test, naming it.
local dir = debug.getinfo(1, "S").source:match("^@(.*/)") or "./"
local check = {}

-- A value as text with sorted keys, so that deep equality is one comparison.
local function show(value)
  if type(value) == "string" then return string.format("%q", value) end
  if type(value) ~= "table" then return tostring(value) end
  local keys, out = {}, {}
  for key in pairs(value) do keys[#keys + 1] = key end
  table.sort(keys, function(a, b) return tostring(a) < tostring(b) end)
  for _, key in ipairs(keys) do out[#out + 1] = tostring(key) .. "=" .. show(rawget(value, key)) end
  return "{" .. table.concat(out, ",") .. "}"
end

function check.equal(actual, expected, what)
  if show(actual) ~= show(expected) then
    error(string.format("%s: got %s, expected %s", what or "value", show(actual), show(expected)), 2)
  end
end

-- fn must fail with a message that contains expected (plain text).
function check.raises(expected, fn, ...)
  local ok, message = pcall(fn, ...)
  if ok or not tostring(message):find(expected, 1, true) then
    error(string.format("expected the error %q, got %s", expected, ok and "success" or tostring(message)), 2)
  end
end

function check.test(name, fn)
  local ok, message = xpcall(fn, debug.traceback)
  if not ok then error(name .. ": " .. message, 0) end
end

for _, suite in ipairs({ "sax_test.lua", "dom_test.lua", "write_test.lua" }) do
  assert(loadfile(dir .. suite))(xml, check)
end
