-- Node trees: their shape, the lookups scripts make on them, editing, errors.
local xml, check = ...

check.test("Dom.MixedTextJoinsAndChildrenAreReachableByName", function()
  local doc = xml.dom.parseStr("<a>x<b/>y<![CDATA[<z>]]></a>")
  check.equal(doc["#type"], "document")
  check.equal(doc["#name"], "#doc")
  check.equal(doc["#root"], nil, "#root after parsing")
  local a = doc.a
  check.same(a, doc.childElems.a)
  check.equal({ a["#type"], a["#name"], a["#text"] }, { "element", "a", "xy<z>" })
  check.equal({ a.b["#name"], a.b["#text"], next(a.b["#attr"]), next(a.b.childElems) },
              { "b", "", nil, nil })
  -- The node's own fields win over children of the same name.
  local withClash = xml.dom.parseStr("<a><childElems/></a>").a
  check.truthy(withClash.childElems.childElems, "the child table under childElems")
end)

check.test("Dom.RepeatedSiblingsBecomeAnArrayInDocumentOrder", function()
  local doc = xml.dom.parseStr("<list><item>1</item><other/><item>2</item><item>3</item></list>")
  local items = doc.list.item
  check.equal(#items, 3)
  check.equal({ items[1]["#text"], items[2]["#text"], items[3]["#text"] }, { "1", "2", "3" })
  check.equal(#doc.list.other, 0, "length of a single node")
end)

check.test("Dom.AttributesDropNamespacesAndLaterOnesWin", function()
  local a = xml.dom.parseStr('<p:a xmlns:p="urn:p" p:x="1" x="2" y="&lt;"/>').a
  check.equal(a["#attr"], { ["xmlns:p"] = "urn:p", x = "2", y = "<" })
end)

check.test("Dom.TextOutsideTheRootIsIgnoredAndWhitespaceCanBeStripped", function()
  local doc = xml.dom.parseStr("<?xml version='1.0'?>\nbefore<a>\n  <b> x </b>\n</a>after<!--c-->")
  check.equal(doc.a["#text"], "\n  \n")
  check.equal(doc.a.b["#text"], " x ")
  doc = xml.dom.parseStr("<a>\n  <b> x </b>\n</a>", { stripWhitespace = true })
  check.equal({ doc.a["#text"], doc.a.b["#text"] }, { "", "x" })
end)

check.test("Dom.NodesCarryAnIndexMetatableAndLeaveGlobals", function()
  local doc = xml.dom.parseStr("<a><b/><c/></a>")
  local last = doc.a.c
  check.same(newElem, last, "newElem")
  check.same(mt, getmetatable(last), "mt")
  check.same(mt.__index, last.childElems, "mt.__index")
  check.same(getmetatable(doc).__index, doc.childElems)
end)

check.test("Dom.RaisesOnStructuralErrors", function()
  local cases = {
    { "<a/><b/>", "Encountered element 'b' when the document already has a root 'a' element" },
    { "<a></b>", "Received a close element notification for 'b' but was inside a 'a' element" },
    { "</a><a/>",
      "Received a close element notification for 'a' but was inside a '#doc' document" },
  }
  for _, case in ipairs(cases) do
    check.raises(case[2], xml.dom.parseStr, case[1])
  end
end)

check.test("Dom.ParseFileReadsTheWholeFile", function()
  local fileName = os.tmpname()
  local file = assert(io.open(fileName, "wb"))
  file:write("<a> x <b/></a>")
  file:close()
  -- A NUL must not cut the name short and open the file before it.
  check.raises("path contains a NUL byte", xml.dom.parseFile, fileName .. "\0x")
  local doc = xml.dom.parseFile(fileName, { stripWhitespace = true })
  local texts = {}
  xml.sax.parseFile(fileName, { text = function(text) texts[#texts + 1] = text end })
  os.remove(fileName)
  check.equal({ doc.a["#text"], doc.a.b["#name"], texts }, { "x", "b", { " x " } })
  check.raises("attempt to index a nil value", xml.dom.parseFile, fileName)
  check.raises("attempt to index a nil value", xml.sax.parseFile, fileName, {})
end)

check.test("Dom.AddElementKeepsTheSingleOrArrayRule", function()
  local doc = xml.dom.parseStr("<a/>")
  check.same(xml.dom.addElement(doc.a, "n", "one"), doc.a, "addElement's result")
  local first = doc.a.n
  check.equal({ first["#type"], first["#name"], first["#text"] }, { "", "n", "one" })
  xml.dom.addElement(doc.a, "n")
  check.equal({ #doc.a.n, doc.a.n[1], doc.a.n[2]["#text"] }, { 2, first, "" })
  xml.dom.addElement(doc.a, "n")
  check.equal(#doc.a.n, 3)
end)

check.test("Dom.RemoveElementShrinksArraysToSingleNodes", function()
  local a = xml.dom.parseStr("<a><n>1</n><n>2</n><n>3</n><m/></a>").a
  local one, two, three = a.n[1], a.n[2], a.n[3]
  check.same(xml.dom.removeElement(a, two), a, "removeElement's result")
  check.equal({ #a.n, a.n[1], a.n[2] }, { 2, one, three })
  xml.dom.removeElement(a, one)
  check.same(a.childElems.n, three)
  xml.dom.removeElement(a, three)
  check.equal(a.childElems.n, nil)
  xml.dom.removeElement(a, three)
  check.equal(a.childElems.m["#name"], "m", "an unrelated child")
  -- Kept quirk: a different node of the same name still removes the stored one.
  local stranger = xml.dom.parseStr("<m/>").m
  xml.dom.removeElement(a, stranger)
  check.equal(a.childElems.m, nil)
end)
