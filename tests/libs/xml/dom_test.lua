-- Node trees beyond docs/xml.md's examples: shape, lookups, editing, errors.
local xml, check = ...

check.test("Dom.NodesJoinMixedTextAndReachChildrenByName", function()
  local doc = xml.dom.parseStr("<a>x<b/>y<![CDATA[<z>]]></a>")
  check.equal({ doc["#type"], doc["#root"] }, { "document", nil })
  local a = doc.a
  assert(rawequal(a, doc.childElems.a), "doc.a is its child")
  check.equal({ a["#type"], a["#name"], a["#text"] }, { "element", "a", "xy<z>" })
  check.equal({ a.b["#text"], next(a.b["#attr"]), next(a.b.childElems), #a.b }, { "", nil, nil, 0 })
  -- The node's own fields win over children of the same name.
  assert(xml.dom.parseStr("<a><childElems/></a>").a.childElems.childElems, "the child under childElems")
  -- Namespaces are dropped from attributes and the later of two equal names wins.
  check.equal(xml.dom.parseStr('<p:a xmlns:p="urn:p" p:x="1" x="2" y="&lt;"/>').a["#attr"],
              { ["xmlns:p"] = "urn:p", x = "2", y = "<" })
  -- Text outside the root is ignored.
  doc = xml.dom.parseStr("<?xml version='1.0'?>\nbefore<a>\n  <b> x </b>\n</a>after<!--c-->")
  check.equal({ doc.a["#text"], doc.a.b["#text"] }, { "\n  \n", " x " })
end)

check.test("Dom.RaisesOnStructuralErrors", function()
  check.raises("Encountered element 'b' when the document already has a root 'a' element", xml.dom.parseStr,
               "<a/><b/>")
  check.raises("Received a close element notification for 'a' but was inside a '#doc' document", xml.dom.parseStr,
               "</a><a/>")
end)

check.test("Dom.FileNamesWithNulAreRefused", function()
  -- A NUL must not cut the name short and open the file before it.
  local fileName = os.tmpname()
  check.raises("path contains a NUL byte", xml.dom.parseFile, fileName .. "\0x")
  check.raises("path contains a NUL byte", xml.sax.parseFile, fileName .. "\0x", {})
  os.remove(fileName)
  check.raises("attempt to index a nil value", xml.dom.parseFile, fileName)
end)

check.test("Dom.AddAndRemoveKeepTheSingleOrArrayRule", function()
  local doc = xml.dom.parseStr("<a/>")
  assert(rawequal(xml.dom.addElement(doc.a, "n", "one"), doc.a), "addElement returns the parent")
  local first = doc.a.n
  check.equal({ first["#type"], first["#name"], first["#text"] }, { "", "n", "one" })
  xml.dom.addElement(doc.a, "n")
  xml.dom.addElement(doc.a, "n")
  check.equal({ #doc.a.n, doc.a.n[1], doc.a.n[3]["#text"] }, { 3, first, "" })

  local a = xml.dom.parseStr("<a><n>1</n><n>2</n><n>3</n><m/></a>").a
  local one, two, three = a.n[1], a.n[2], a.n[3]
  assert(rawequal(xml.dom.removeElement(a, two), a), "removeElement returns the parent")
  check.equal({ #a.n, a.n[1], a.n[2] }, { 2, one, three })
  xml.dom.removeElement(a, one)
  assert(rawequal(a.childElems.n, three), "the last node left is stored as itself")
  xml.dom.removeElement(a, three)
  xml.dom.removeElement(a, three)
  check.equal({ a.childElems.n, a.childElems.m["#name"] }, { nil, "m" })
end)
