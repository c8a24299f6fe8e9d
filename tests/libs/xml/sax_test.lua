-- Event parser: the events a document author sees, in order, and every error.
local xml, check = ...

-- Fixed arities, so a namespace or prefix left out shows as "nil".
local ARITY = { start = 3, attr = 4, close = 3, text = 1, comment = 1, pi = 2 }

local function recorder()
  local events, callbacks = {}, {}
  for name, kind in pairs({ startElement = "start", attribute = "attr", closeElement = "close", text = "text",
                            comment = "comment", pi = "pi" }) do
    callbacks[name] = function(...)
      local parts = { kind }
      for i = 1, ARITY[kind] do parts[#parts + 1] = tostring((select(i, ...))) end
      events[#events + 1] = table.concat(parts, "|")
    end
  end
  return events, callbacks
end

local function eventsOf(content, options)
  local events, callbacks = recorder()
  xml.sax.parseStr(content, callbacks, options)
  return events
end

check.test("Sax.TextIsReportedOnceBetweenConstructs", function()
  check.equal(eventsOf("<a>one &amp; two<!--c-->three</a>tail"), {
    "start|a|nil|nil", "text|one & two", "comment|c", "text|three", "close|a|nil|nil",
  })
  -- A "<" that starts nothing known stays in the text, and so does a DOCTYPE.
  check.equal(eventsOf('<!DOCTYPE a [<!ENTITY e "x">]><a>1 < 2 <3 <!x></a>'), {
    'text|<!DOCTYPE a [<!ENTITY e "x">]>', "start|a|nil|nil", "text|1 < 2 <3 <!x>", "close|a|nil|nil",
  })
end)

-- Resolution is compared with lua-expat; prefixes and scope ends are ours alone.
check.test("Sax.NamespacesReportTheirPrefixes", function()
  local content = '<r xmlns:p="urn:p"><p:s xmlns:p="urn:s" p:a="1" b="2"><p:i/></p:s><p:e/><t xml:lang="en"/></r>'
  check.equal(eventsOf(content), {
    "start|r|nil|nil", "attr|xmlns:p|urn:p|nil|nil",
    "start|s|urn:s|p", "attr|xmlns:p|urn:s|nil|nil", "attr|a|1|urn:s|p", "attr|b|2|nil|nil",
    "start|i|urn:s|p", "close|i|urn:s|p", "close|s|urn:s|nil", "start|e|urn:p|p", "close|e|urn:p|p",
    "start|t|nil|nil", "attr|lang|en|http://www.w3.org/XML/1998/namespace|xml", "close|t|nil|nil",
    "close|r|nil|nil",
  })
end)

-- References lua-expat refuses, which we pass through or decode all the same.
check.test("Sax.LenientReferencesInTextAndAttributeValues", function()
  local cases = {
    { "&#x1FFFFF;|&#x200000;|&#xFFFF;|&#0065;|&#X41;", "\xF7\xBF\xBF\xBF|&#x200000;|\xEF\xBF\xBF|A|A" },
    { "&foo; &amp &; &#; & x", "&foo; &amp &; &#; & x" },
    { "&amp;lt;", "&lt;" },
  }
  for _, case in ipairs(cases) do
    local input, expected = case[1], case[2]
    check.equal(eventsOf("<a>" .. input .. "</a>"),
                { "start|a|nil|nil", "text|" .. expected, "close|a|nil|nil" }, input)
    check.equal(eventsOf('<a v="' .. input .. '"/>')[2], "attr|v|" .. expected .. "|nil|nil", input)
  end
end)

check.test("Sax.RaisesOnMalformedDocuments", function()
  local cases = {
    { "<a b></a>", "Was in an element and couldn't find attributes or the close." },
    { '<r><a xmlns:z="u"/><z:b/></r>', "Cannot find namespace for prefix z" },
    { "text <!-- c --> <?pi x?> <![CDATA[x]]>", "Parsing did not discover any elements" },
    { '<a x="1"', "Parsing ended with unclosed elements" },
    { "<a>&#zz;</a>", "attempt to compare nil with number" },
  }
  for _, case in ipairs(cases) do
    check.raises(case[2], xml.sax.parseStr, case[1], select(2, recorder()))
  end
end)
