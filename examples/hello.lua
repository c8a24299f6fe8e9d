-- The bundled example: `corvane run examples/hello.lua --args '{"name": "corvane"}'`.
-- Arguments arrive in init_data; whatever the script returns is printed as
-- one JSON array. Everything here runs offline and at once.

local name = init_data.name or "world"
local started = cv.get_monotonic_time_ms()

-- json: text to tables and back; arrays and objects keep their kind, even empty.
local order = json.decode([[
  {"id": 17, "items": [{"sku": "A-1", "qty": 2}, {"sku": "B-7", "qty": 1}],
   "tags": [], "note": null}
]])
local quantity = 0
for _, item in ipairs(order.items) do quantity = quantity + item.qty end

-- cv: URLs built from parts and taken apart again.
local url = cv.build_url({scheme = "https", host = "shop.example", path = "/orders/" .. order.id,
                          query = cv.build_url_query_str({{greet = name}, {lang = "en"}})})
local parsed = cv.parse_url(url)

-- base64 and xml: a token that survives the trip, and a document read into a tree.
local token = base64.encode(name .. ":" .. order.id)
local receipt = xml.dom.parseStr('<receipt lang="en"><total>' .. quantity .. '</total></receipt>')

return "hello, " .. name, {
  order = order,                    -- "tags" stays [], "note" is left out
  items = quantity,
  url = url,
  host = parsed.host,
  token = token,
  token_ok = base64.decode(token) == name .. ":" .. order.id,
  receipt_total = tonumber(receipt.receipt.total["#text"]),
  elapsed_ms = cv.get_monotonic_time_ms() - started,
}
