-- A small assertion helper for script-level tests: named tests, deep
-- equality with a path to the first difference, and expected errors.

local check = { failed = {}, passed = 0 }

local function describe(value)
  return type(value) == "string" and string.format("%q", value) or tostring(value)
end

-- Returns nil when equal, else where and how the values differ.
local function difference(actual, expected, path)
  if type(actual) ~= "table" or type(expected) ~= "table" then
    if actual == expected then return nil end
    return string.format("%s: got %s, expected %s", path, describe(actual), describe(expected))
  end
  for key, value in pairs(expected) do
    local found = difference(rawget(actual, key), value, path .. "." .. tostring(key))
    if found then return found end
  end
  for key, value in pairs(actual) do
    if rawget(expected, key) == nil then
      return string.format("%s.%s: unexpected %s", path, tostring(key), describe(value))
    end
  end
  return nil
end

function check.equal(actual, expected, what)
  local found = difference(actual, expected, what or "value")
  if found then error(found, 2) end
end

function check.same(actual, expected, what)
  if not rawequal(actual, expected) then
    error(string.format("%s: got %s, expected the very value %s", what or "value", describe(actual),
                        describe(expected)), 2)
  end
end

function check.truthy(value, what)
  if not value then error((what or "condition") .. " does not hold", 2) end
end

-- fn must fail with a message that contains expected (plain text).
function check.raises(expected, fn, ...)
  local ok, message = pcall(fn, ...)
  if ok then
    error(string.format("expected the error %q, but the call succeeded", expected), 2)
  end
  if not tostring(message):find(expected, 1, true) then
    error(string.format("expected the error %q, got %q", expected, tostring(message)), 2)
  end
  return message
end

function check.test(name, fn)
  local ok, message = xpcall(fn, debug.traceback)
  if ok then
    check.passed = check.passed + 1
  else
    check.failed[#check.failed + 1] = name
    print(string.format("FAILED %s\n%s", name, message))
  end
end

-- Raises when any test failed, so that the runner's exit status tells.
function check.finish()
  print(string.format("%d passed, %d failed", check.passed, #check.failed))
  if #check.failed > 0 then error("failed: " .. table.concat(check.failed, ", "), 0) end
end

return check
