-- The event parser against lua-expat on generated well-formed documents,
-- where the two are meant to agree: namespace declarations, the XML
-- declaration and text outside the root are ours alone, and expat splits
-- character data where it likes, so adjacent text is joined on both sides.

local lxp = require("lxp")
local DOCUMENTS = 400

-- Our own fixed-seed generator: a failing document is rebuilt from its number.
local state
local function random(n)
  state = state * 6364136223846793005 + 1442695040888963407
  return (state >> 33) % n + 1
end
local function pick(list) return list[random(#list)] end
local function chance(percent) return random(100) <= percent end

local NAMES = { "a", "b", "item", "x-y", "_u", "n.1", "Data", "z9" }
local URIS = { "urn:one", "urn:two", "http://example.com/ns", "urn:x&amp;y" }
local PREFIXES = { "p", "q", "ns1", "x_y" }
-- Character references on each side of every UTF-8 length boundary.
local REFERENCES = { "&lt;", "&gt;", "&amp;", "&quot;", "&apos;", "&#65;", "&#x263A;", "&#x1F600;", "&#233;",
                     "&#10;", "&#9;", "&#x20;", "&#x7F;", "&#x80;", "&#x7FF;", "&#x800;", "&#xFFFD;",
                     "&#x10000;", "&#x10FFFF;" }
-- Raw characters; values hold no white space but the space, which expat keeps.
local TEXT_CHARS = { "a", "b", "Z", "0", " ", " ", "\n", "\t", ">", "'", "\"", "é", "→", "=", "/" }
local VALUE_CHARS = { "a", "b", "Z", "0", " ", ">", "é", "=", "/", ":" }

local function characters(count, allowed)
  local out = {}
  for i = 1, count do out[i] = chance(15) and pick(REFERENCES) or pick(allowed) end
  return table.concat(out)
end

local function attributeValue()
  local value = characters(random(8) - 1, VALUE_CHARS)
  if chance(50) then return "\"" .. value:gsub("\"", "") .. "\"" end
  return "'" .. value:gsub("'", "") .. "'"
end

local function space() return pick({ "", " ", "  ", "\n\t" }) end

local function element(depth, scope, out)
  local inner, attributes, declared, used = {}, {}, {}, {}
  for prefix in pairs(scope) do inner[prefix] = true end
  if chance(20) then
    attributes[#attributes + 1] = "xmlns=" .. (chance(20) and "''" or "\"" .. pick(URIS) .. "\"")
  end
  if chance(30) then
    local prefix = pick(PREFIXES)
    inner[prefix] = true
    attributes[#attributes + 1] = "xmlns:" .. prefix .. "=\"" .. pick(URIS) .. "\""
  end
  for prefix in pairs(inner) do declared[#declared + 1] = prefix end
  table.sort(declared)

  -- Each local name once, so names stay unique after resolution.
  for _ = 1, random(4) - 1 do
    local name = pick(NAMES)
    if not used[name] then
      used[name] = true
      local prefix = #declared > 0 and chance(30) and pick(declared)
      if chance(5) then prefix = "xml" end
      attributes[#attributes + 1] = (prefix and prefix .. ":" or "") .. name .. space() .. "=" .. space()
        .. attributeValue()
    end
  end
  -- Declarations may come after the attributes that use them.
  if chance(50) then table.sort(attributes) end

  local name = pick(NAMES)
  if #declared > 0 and chance(40) then name = pick(declared) .. ":" .. name end
  local head = "<" .. name
  for _, attribute in ipairs(attributes) do head = head .. " " .. space() .. attribute end
  head = head .. space()

  out[#out + 1] = head .. ((depth > 4 or chance(20)) and "/>" or ">")
  if out[#out]:sub(-2) == "/>" then return end
  for _ = 1, random(6) - 1 do
    local kind = random(10)
    if kind <= 4 then
      out[#out + 1] = characters(random(20), TEXT_CHARS)
    elseif kind <= 7 then
      element(depth + 1, inner, out)
    elseif kind == 8 then
      out[#out + 1] = "<![CDATA[" .. characters(random(10), { "<", "&", "a", "]", " ", "&amp;" }) .. "]]>"
    elseif kind == 9 then
      out[#out + 1] = "<!--" .. characters(random(10), { "a", "<", "&", " ", ">", "-a" }) .. "-->"
    else
      -- One space after the target: expat drops any more.
      local data = "d" .. characters(random(6), { "a", " ", "<", "?", "&" })
      out[#out + 1] = "<?" .. pick({ "pi", "target", "a-b" }) .. " " .. data .. "?>"
    end
  end
  out[#out + 1] = "</" .. name .. space() .. ">"
end

local function document(number)
  state = number * 2654435761 + 1
  local out = {}
  if chance(50) then out[#out + 1] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" end
  if chance(30) then out[#out + 1] = "<!-- before -->\n" end
  element(0, {}, out)
  out[#out + 1] = chance(50) and "\n" or ""
  return table.concat(out)
end

-- Events as text, adjacent text joined.
local function recorder()
  local events = {}
  return events, function(kind, ...)
    if kind == "text" and (events[#events] or ""):sub(1, 5) == "text " then
      events[#events] = events[#events] .. ...
    else
      events[#events + 1] = table.concat({ kind, ... }, " ")
    end
  end
end

local function ourEvents(content)
  local events, add = recorder()
  local depth = 0
  xml.sax.parseStr(content, {
    startElement = function(name, namespace)
      depth = depth + 1
      add("start", namespace or "-", name)
    end,
    attribute = function(name, value, namespace)
      if name ~= "xmlns" and not name:find("^xmlns:") then add("attr", namespace or "-", name, value) end
    end,
    closeElement = function(name, namespace)
      depth = depth - 1
      add("end", namespace or "-", name)
    end,
    text = function(text) if depth > 0 then add("text", text) end end,
    comment = function(text) add("comment", text) end,
    pi = function(target, data) if target ~= "xml" then add("pi", target, data) end end,
  })
  return events
end

local SEPARATOR = "\1"

local function split(name)
  local namespace, localName = name:match("^(.*)" .. SEPARATOR .. "(.*)$")
  return namespace or "-", localName or name
end

local function expatEvents(content)
  local events, add = recorder()
  local parser = lxp.new({
    StartElement = function(_, name, attributes)
      local namespace, localName = split(name)
      add("start", namespace, localName)
      for _, attribute in ipairs(attributes) do
        local attributeNamespace, attributeName = split(attribute)
        add("attr", attributeNamespace, attributeName, attributes[attribute])
      end
    end,
    EndElement = function(_, name) add("end", split(name)) end,
    CharacterData = function(_, text) add("text", text) end,
    Comment = function(_, text) add("comment", text) end,
    ProcessingInstruction = function(_, target, data) add("pi", target, data) end,
  }, SEPARATOR)
  local ok, message = parser:parse(content)
  if ok then ok, message = parser:parse() end
  assert(ok, "expat rejects the generated document: " .. tostring(message) .. "\n" .. content)
  parser:close()
  return events
end

for number = 1, DOCUMENTS do
  local content = document(number)
  local ours, theirs = table.concat(ourEvents(content), "\n"), table.concat(expatEvents(content), "\n")
  if ours ~= theirs then
    error(string.format("document %d:\n%s\nours:\n%s\nexpat:\n%s", number, content, ours, theirs), 0)
  end
end
