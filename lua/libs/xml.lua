-- The xml library: an event (SAX) parser, a node-tree (DOM) builder on top of
-- it, and a writer for such trees. The text returns the library table.
--
-- The parser is deliberately lenient: it checks what it needs to produce
-- events and nothing more (no DTD, closing tags are matched only by the DOM
-- builder, unknown markup counts as text). Every scan uses anchored patterns
-- or plain searches so that no input makes it backtrack quadratically.

local byte, char, find, format = string.byte, string.char, string.find, string.format
local gsub, rep, sub = string.gsub, string.rep, string.sub
local concat = table.concat

local XML_NAMESPACE = "http://www.w3.org/XML/1998/namespace"

local NAME = "[%a_][%w_%.%-]*"
-- A tag with neither prefix nor attributes, opening, empty or closing. The
-- position capture stands before the "/" of an empty-element tag.
local PLAIN_TAG = "^<(/?)(" .. NAME .. ")%s*()/?>"
local OPEN_TAG = "^<(" .. NAME .. ")(:?)"
local LOCAL_NAME = "^(" .. NAME .. ")"
local PREFIXED_CLOSE_TAG = "^</(" .. NAME .. "):(" .. NAME .. ")%s*>"
local PI_HEAD = "^<%?([%a_:][%w_%.%-:]*) ?"
local COMMENT_HEAD = "^<!%-%-"
local CDATA_HEAD = "^<!%[CDATA%["
-- Most attributes have a name without prefix and a value that holds neither
-- quote character: one search reads them. The general patterns below take
-- the rest; their values end at the first quote like the opening one.
local PLAIN_ATTRIBUTE = "^%s+(" .. NAME .. ")%s*=%s*([\"'])([^<\"']*)%2"
local ATTRIBUTE_NAME = "[%a_:][%w_%.%-:]*"
local QUOTED_ATTRIBUTE = "^%s+(" .. ATTRIBUTE_NAME .. ")%s*=%s*\"([^<\"]*)\""
local APOSTROPHED_ATTRIBUTE = "^%s+(" .. ATTRIBUTE_NAME .. ")%s*=%s*'([^<']*)'"
local TAG_END = "^%s*()/?>"

local QUESTION, BANG, SLASH = byte("?!/", 1, 3)

---------------------------------------------------------------------------
-- Entities

-- UTF-8 as originally defined, up to four bytes and 21 bits; utf8.char
-- stops at 0x10FFFF.
local function encodeUtf8(codePoint)
  if codePoint < 0x80 then
    return char(codePoint)
  elseif codePoint < 0x800 then
    return char(0xC0 | codePoint >> 6, 0x80 | codePoint & 0x3F)
  elseif codePoint < 0x10000 then
    return char(0xE0 | codePoint >> 12, 0x80 | codePoint >> 6 & 0x3F, 0x80 | codePoint & 0x3F)
  end
  return char(0xF0 | codePoint >> 18, 0x80 | codePoint >> 12 & 0x3F, 0x80 | codePoint >> 6 & 0x3F,
              0x80 | codePoint & 0x3F)
end

-- gsub looks each reference up here. The predefined names hit directly;
-- everything else goes through __index, which reads character references
-- and returns nil, keeping the reference as written, for unknown names and
-- for code points beyond what four UTF-8 bytes hold.
local REFERENCES = setmetatable({ lt = "<", gt = ">", amp = "&", quot = "\"", apos = "'" }, {
  __index = function(_, ref)
    if byte(ref) ~= 35 then -- "#"
      return nil
    end
    -- The leading "0" makes "#65" decimal and "#x41" hexadecimal. Anything
    -- that is no number fails the comparison below with Lua's own error.
    local codePoint = tonumber("0" .. sub(ref, 2))
    if codePoint <= 0x1FFFFF then
      return encodeUtf8(codePoint)
    end
  end,
})

local function unescape(text)
  return (gsub(text, "&(#?%w+);", REFERENCES))
end

-- Both ends found in linear time: "^%s*(.-)%s*$" backtracks quadratically
-- on long runs of inner white space.
local function trim(text)
  local first = find(text, "%S")
  if not first then
    return ""
  end
  local _, last = find(text, "^.*%S", first)
  return sub(text, first, last)
end

---------------------------------------------------------------------------
-- SAX parser

local function qualified(name, prefix)
  return prefix and prefix .. ":" .. name or name
end

-- Used when parseStr gets no callbacks: a readable trace of every event.
local TRACING_CALLBACKS = {
  startElement = function(name, _, prefix)
    print(format("<%s>", qualified(name, prefix)))
  end,
  attribute = function(name, value, _, prefix)
    print(format("  %s=%q", qualified(name, prefix), value))
  end,
  closeElement = function(name)
    print(format("</%s>", name))
  end,
  text = function(text)
    print(format("  text: %q", text))
  end,
  comment = function(content)
    print(format("<!-- %s -->", content))
  end,
  pi = function(target, content)
    print(format("<?%s %s?>", target, content))
  end,
}

local function parseSax(content, callbacks, options)
  callbacks = callbacks or TRACING_CALLBACKS
  local onStart, onAttribute = callbacks.startElement, callbacks.attribute
  local onClose, onText = callbacks.closeElement, callbacks.text
  local onComment, onPi = callbacks.comment, callbacks.pi
  local stripWhitespace = options and options.stripWhitespace

  local length = #content
  local textStart = 1     -- where the text since the last construct begins
  local foundElement = false

  -- Namespace scopes, one per open element. defaults[d] is the default
  -- namespace in force at depth d (nil when none). bound maps each prefix
  -- to the innermost declaration in force; hidden[d] keeps what the
  -- declarations at d replaced (false for nothing), put back when d closes,
  -- so a lookup costs the same at any depth.
  local depth = 0
  local defaults, bound, hidden = {}, {}, {}

  local function closeScope()
    if depth == 0 then
      return
    end
    local replaced = hidden[depth]
    if replaced then
      for prefix, uri in pairs(replaced) do
        bound[prefix] = uri or nil
      end
      hidden[depth] = false
    end
    depth = depth - 1
  end

  -- The opening tag being read: its events wait for the tag end so that
  -- declarations anywhere in the tag apply to the whole tag.
  local tagName, tagPrefix
  local attributeCount = 0
  local attributeNames, attributeValues, attributePrefixes = {}, {}, {}

  local function resolve(prefix)
    if prefix == "xml" then
      return XML_NAMESPACE
    end
    local uri = bound[prefix]
    if uri then
      return uri
    end
    error(format("Cannot find namespace for prefix %s", prefix))
  end

  -- Once a terminator is missing after one position it is missing after
  -- every later one; remembering that keeps runs of unterminated "<!--"
  -- linear instead of scanning to the end for each.
  local missingTerminators = {}
  local function findTerminator(terminator, from)
    if missingTerminators[terminator] then
      return nil
    end
    local first, last = find(content, terminator, from, true)
    if not first then
      missingTerminators[terminator] = true
    end
    return first, last
  end

  -- The next "&" of the input: most texts and values hold no reference, and
  -- this tells so without searching each of them.
  local nextAmpersand = 0

  -- Reports the text since the last construct, which ends before upTo. The
  -- main loop has its own copy for plain tags.
  local function flushText(upTo)
    if upTo <= textStart or not onText then
      return
    end
    local text = sub(content, textStart, upTo - 1)
    if stripWhitespace then
      text = trim(text)
      if text == "" then
        return
      end
    end
    if nextAmpersand < textStart then
      nextAmpersand = find(content, "&", textStart, true) or length + 1
    end
    if nextAmpersand < upTo then
      text = unescape(text)
    end
    onText(text)
  end

  -- Keeps an attribute for the tag end; declarations take effect at once.
  -- The prefix is false for a name without one; the value's closing quote
  -- is at quoteAt.
  local function addAttribute(name, value, prefix, quoteAt)
    local valueStart = quoteAt - #value
    if nextAmpersand < valueStart then
      nextAmpersand = find(content, "&", valueStart, true) or length + 1
    end
    if nextAmpersand < quoteAt then
      value = unescape(value)
    end
    if prefix == "xmlns" then
      -- Declarations keep their full name and report no prefix.
      local replaced = hidden[depth] or {}
      if replaced[name] == nil then
        replaced[name] = bound[name] or false
      end
      hidden[depth] = replaced
      bound[name] = value
      name, prefix = "xmlns:" .. name, false
    elseif name == "xmlns" and not prefix then
      defaults[depth] = value ~= "" and value or nil
    end
    attributeCount = attributeCount + 1
    attributeNames[attributeCount] = name
    attributeValues[attributeCount] = value
    attributePrefixes[attributeCount] = prefix
  end

  -- Reports the opening tag that has just been read whole.
  local function reportTag(isEmpty)
    local namespace = defaults[depth]
    if tagPrefix then
      namespace = resolve(tagPrefix)
    end
    if onStart then
      onStart(tagName, namespace, tagPrefix)
    end
    for i = 1, attributeCount do
      local prefix = attributePrefixes[i] or nil
      local attributeNamespace = prefix and resolve(prefix)
      if onAttribute then
        onAttribute(attributeNames[i], attributeValues[i], attributeNamespace, prefix)
      end
    end
    if isEmpty then
      closeScope()
      if onClose then
        onClose(tagName, namespace, tagPrefix)
      end
    end
  end

  -- Reads the attributes up to the tag end: the parser's "attributes" state.
  -- Like the main loop it stops before the last character.
  local function attributesAndTagEnd(pos)
    while pos < length do
      local _, last, name, _, value = find(content, PLAIN_ATTRIBUTE, pos)
      local prefix = false
      if not last then
        local _, tagEnd, slashAt = find(content, TAG_END, pos)
        if tagEnd then
          reportTag(tagEnd > slashAt)
          return tagEnd + 1
        end
        _, last, name, value = find(content, QUOTED_ATTRIBUTE, pos)
        if not last then
          _, last, name, value = find(content, APOSTROPHED_ATTRIBUTE, pos)
        end
        if not last then
          error("Was in an element and couldn't find attributes or the close.")
        end
        local colon = find(name, ":", 1, true)
        if colon then
          prefix, name = sub(name, 1, colon - 1), sub(name, colon + 1)
        end
      end
      addAttribute(name, value, prefix, last)
      pos = last + 1
    end
    return pos
  end

  -- The construct readers get the position of "<" and return the position
  -- after the construct, or nil when the construct is not there.

  local function openingTag(at)
    local _, last, name, colon = find(content, OPEN_TAG, at)
    if not last then
      return nil
    end
    local prefix
    if colon ~= "" then
      -- "<p:n" names n in namespace p; a colon without a name after it is
      -- left to the attributes state.
      local _, localLast, localName = find(content, LOCAL_NAME, last + 1)
      if localLast then
        prefix, name, last = name, localName, localLast
      else
        last = last - 1
      end
    end
    flushText(at)
    foundElement = true
    depth = depth + 1
    defaults[depth], hidden[depth] = defaults[depth - 1], false
    tagName, tagPrefix, attributeCount = name, prefix, 0
    return attributesAndTagEnd(last + 1)
  end

  local function prefixedClosingTag(at)
    local _, last, prefix, name = find(content, PREFIXED_CLOSE_TAG, at)
    if not last then
      return nil
    end
    flushText(at)
    local namespace = resolve(prefix)
    closeScope()
    if onClose then
      onClose(name, namespace)
    end
    return last + 1
  end

  local function processingInstruction(at)
    local _, headEnd, target = find(content, PI_HEAD, at)
    if not headEnd then
      return nil
    end
    local close, last = findTerminator("?>", headEnd + 1)
    if not close then
      return nil
    end
    flushText(at)
    if onPi then
      onPi(target, sub(content, headEnd + 1, close - 1))
    end
    return last + 1
  end

  local function commentOrCdata(at)
    local _, headEnd = find(content, COMMENT_HEAD, at)
    local terminator, handler = "-->", onComment
    if not headEnd then
      _, headEnd = find(content, CDATA_HEAD, at)
      terminator, handler = "]]>", onText
    end
    if not headEnd then
      return nil
    end
    local close, last = findTerminator(terminator, headEnd + 1)
    if not close then
      return nil
    end
    flushText(at)
    -- Neither comments nor CDATA sections are unescaped.
    if handler then
      handler(sub(content, headEnd + 1, close - 1))
    end
    return last + 1
  end

  -- Constructs other than tags, told apart by the character after "<".
  local function otherConstruct(at)
    local marker = byte(content, at + 1)
    if marker == SLASH then
      return prefixedClosingTag(at)
    elseif marker == QUESTION then
      return processingInstruction(at)
    elseif marker == BANG then
      return commentOrCdata(at)
    end
  end

  -- The "text" state. The last character never starts a construct: the loop
  -- stops before it.
  local pos = 1
  while pos < length do
    local at = find(content, "<", pos, true)
    if not at or at >= length then
      break
    end
    local _, last, slash, name, slashAt = find(content, PLAIN_TAG, at)
    local after
    if not last or slash == "" and last == length then
      -- Tags with attributes or a prefix come next in frequency. An opening
      -- tag that ends the input goes this way too: its attributes state
      -- stops before the tag end.
      after = openingTag(at) or otherConstruct(at)
    elseif slash == "" or last == slashAt then -- "</a/>" is nothing known
      -- Plain tags, by far the most common construct, are handled here
      -- without a call of our own: at one per tag, a call shows in the
      -- parser's speed. First the text before the tag, as flushText
      -- reports it.
      if at > textStart and onText then
        local text = sub(content, textStart, at - 1)
        if stripWhitespace then
          text = trim(text)
        end
        if text ~= "" then
          if nextAmpersand < textStart then
            nextAmpersand = find(content, "&", textStart, true) or length + 1
          end
          if nextAmpersand < at then
            text = unescape(text)
          end
          onText(text)
        end
      end
      -- Without attributes a tag declares nothing: it takes the enclosing
      -- default namespace, and when empty needs no scope at all.
      local namespace = defaults[depth]
      if slash == "/" then
        -- Tags are not matched here, so a stray closing tag must not make
        -- the depth negative.
        closeScope()
        if onClose then
          onClose(name, namespace)
        end
      else
        foundElement = true
        if onStart then
          onStart(name, namespace)
        end
        if last > slashAt then
          if onClose then
            onClose(name, namespace)
          end
        else
          depth = depth + 1
          defaults[depth], hidden[depth] = defaults[depth - 1], false
        end
      end
      after = last + 1
    end
    if after then
      pos = after
      textStart = after
    else
      -- Markup we do not know (a DOCTYPE, a stray "<") stays in the text.
      pos = at + 1
    end
  end

  if not foundElement then
    error("Parsing did not discover any elements")
  end
  if depth > 0 then
    error("Parsing ended with unclosed elements")
  end
end

-- The most a parseFile reads: a bigger file, or an endless one (a device, a
-- pipe), fails before it can exhaust memory.
local MAX_FILE_BYTES = 64 * 1024 * 1024

local function readFile(fileName)
  -- io.open would stop at the NUL and open another file.
  if type(fileName) == "string" and find(fileName, "\0", 1, true) then
    error("Bad argument: path contains a NUL byte")
  end
  local file = io.open(fileName, "rb")
  local content = file:read(MAX_FILE_BYTES + 1)
  file:close()
  if content and #content > MAX_FILE_BYTES then
    error("file too large (more than " .. MAX_FILE_BYTES .. " bytes)")
  end
  return content or ""
end

---------------------------------------------------------------------------
-- DOM

local function newNode(nodeType, name)
  -- Scripts read the last node made, and its metatable, from these globals,
  -- so they stay global on purpose.
  newElem = {
    childElems = {},
    ["#attr"] = {},
    ["#text"] = "",
    ["#type"] = nodeType,
    ["#name"] = name,
  }
  mt = { __index = newElem.childElems }
  return setmetatable(newElem, mt)
end

-- One child of a name is stored as itself, several as an array in document
-- order; a length above 0 is what tells an array from a node.
local function addChild(parent, node)
  local children, name = parent.childElems, node["#name"]
  local entry = children[name]
  if entry == nil then
    children[name] = node
  elseif #entry > 0 then
    entry[#entry + 1] = node
  else
    children[name] = { entry, node }
  end
end

local function parseDom(content, options)
  local doc = newNode("document", "#doc")
  local current = doc
  local depth = 1
  local open = { doc }
  -- Text pieces of each open element, joined when it closes; the buffers are
  -- reused by depth.
  local textBuffers, textCounts = {}, {}

  local callbacks = {}

  function callbacks.startElement(name)
    local isRoot = current == doc
    if isRoot and doc["#root"] then
      error(format("Encountered element '%s' when the document already has a root '%s' element",
                   name, doc["#root"]["#name"]))
    end
    local node = newNode("element", name)
    addChild(current, node)
    if isRoot then
      doc["#root"] = node
    end
    depth = depth + 1
    open[depth], textCounts[depth] = node, 0
    current = node
  end

  -- The parser only reports attributes right after their element; the check
  -- guards that order.
  function callbacks.attribute(name, value)
    if current["#type"] ~= "element" then
      error(format("Encountered an attribute %s=%s but I wasn't inside an element", name, value))
    end
    current["#attr"][name] = value
  end

  function callbacks.closeElement(name)
    if current["#name"] ~= name or current["#type"] ~= "element" then
      error(format("Received a close element notification for '%s' but was inside a '%s' %s",
                   name, current["#name"], current["#type"]))
    end
    local count = textCounts[depth]
    if count > 0 then
      current["#text"] = concat(textBuffers[depth], "", 1, count)
    end
    depth = depth - 1
    current = open[depth]
  end

  function callbacks.text(text)
    if current == doc then
      return
    end
    if current["#type"] ~= "element" then
      error(format("Received a text notification '%s' but was inside a %s", text, current["#type"]))
    end
    local buffer = textBuffers[depth]
    if not buffer then
      buffer = {}
      textBuffers[depth] = buffer
    end
    local count = textCounts[depth] + 1
    buffer[count], textCounts[depth] = text, count
  end

  parseSax(content, callbacks, options)
  doc["#root"] = nil
  return doc
end

local function addElement(parent, name, text)
  local node = newNode("", name)
  node["#text"] = text or ""
  addChild(parent, node)
  return parent
end

-- Quirk kept: a single node has length 0, so when the entry under the name
-- is a different single node, that node is removed all the same.
local function removeElement(parent, node)
  local children, name = parent.childElems, node["#name"]
  local entry = children[name]
  if entry == nil then
    return parent
  end
  if entry == node then
    children[name] = nil
    return parent
  end
  for i = 1, #entry do
    if entry[i] == node then
      table.remove(entry, i)
      break
    end
  end
  if #entry == 0 then
    children[name] = nil
  elseif #entry == 1 then
    children[name] = entry[1]
  end
  return parent
end

---------------------------------------------------------------------------
-- Writer

local TEXT_ESCAPES = { ["&"] = "&amp;", ["<"] = "&lt;", [">"] = "&gt;" }
local ATTRIBUTE_ESCAPES = {
  ["&"] = "&amp;", ["<"] = "&lt;", [">"] = "&gt;", ["\""] = "&quot;", ["'"] = "&apos;",
}

-- Names are written as they stand, so one that is not an XML name would
-- write markup of the caller's choosing. Bytes from 0x80 up are let through:
-- they cannot end a tag or a value.
local XML_NAME = "^[A-Za-z_:\128-\255][A-Za-z0-9_:%.%-\128-\255]*$"

local function checkName(name, what)
  if type(name) ~= "string" or not find(name, XML_NAME) then
    error(format("Invalid %s name %q", what, tostring(name)))
  end
  return name
end

-- Used by every write() call without options; it keeps what write() sets in it.
local sharedWriteOptions = {}

local writeNode

local function writeEntry(out, entry, level, options)
  if #entry > 0 then
    for i = 1, #entry do
      writeNode(out, entry[i], level, options)
    end
  else
    writeNode(out, entry, level, options)
  end
end

function writeNode(out, node, level, options)
  local escape, pretty = options.escape, options.pretty
  if pretty and level > 0 then
    out[#out + 1] = "\n" .. rep("    ", level)
  end

  local attributes = {}
  for name, value in pairs(node["#attr"]) do
    if escape then
      value = gsub(value, "[&<>\"']", ATTRIBUTE_ESCAPES)
    end
    attributes[#attributes + 1] = format(" %s=\"%s\"", checkName(name, "attribute"), value)
  end
  attributes = concat(attributes)

  local name, text, children = checkName(node["#name"], "element"), node["#text"], node.childElems
  local hasChildren = next(children) ~= nil
  if (text == nil or text == "") and not hasChildren then
    out[#out + 1] = format("<%s%s/>", name, attributes)
    return
  end
  out[#out + 1] = format("<%s%s>", name, attributes)
  if text then
    out[#out + 1] = escape and gsub(text, "[&<>]", TEXT_ESCAPES) or text
  end
  for _, entry in pairs(children) do
    writeEntry(out, entry, level + 1, options)
  end
  if pretty and hasChildren then
    out[#out + 1] = "\n" .. rep("    ", level)
  end
  out[#out + 1] = format("</%s>", name)
end

local function write(node, options)
  local nodeType = node["#type"]
  if nodeType ~= nil and nodeType ~= "document" then
    local doc = newNode("document", "#doc")
    doc.childElems[node["#name"]] = node
    node = doc
  end
  -- The caller's table is kept and completed, not copied.
  options = options or sharedWriteOptions
  if options.escape == nil then
    options.escape = true
  end

  local out = { "<?xml version=\"1.0\" standalone=\"yes\"?>\n" }
  local roots = node.childElems
  if #roots > 0 then
    error("Invalid XML table format")
  end
  local wroteRoot = false
  for _, entry in pairs(roots) do
    if wroteRoot then
      error("Multiple root elements encountered")
    end
    writeEntry(out, entry, 0, options)
    wroteRoot = true
  end
  return concat(out)
end

---------------------------------------------------------------------------

return {
  sax = {
    parseStr = parseSax,
    parseFile = function(fileName, callbacks, options)
      parseSax(readFile(fileName), callbacks, options)
    end,
  },
  dom = {
    parseStr = parseDom,
    parseFile = function(fileName, options)
      return parseDom(readFile(fileName), options)
    end,
    addElement = addElement,
    removeElement = removeElement,
  },
  write = write,
}
