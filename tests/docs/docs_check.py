#!/usr/bin/env python3
"""Keeps docs/ honest.

coverage: every function a registered library exposes at run time (nested
tables included, as xml.sax.parseStr) is named in docs/<library>.md.
examples: every ```lua block of docs/*.md runs through the runner; when a
```json block follows it, the runner's standard output must equal it. The
text 127.0.0.1:8080 in an example is pointed at an echo server started here.
Every ```cpp block that holds a main() must be a file of examples/ verbatim
(README.md included), since those are built and run against an installed copy.
"""
import http.server, json, pathlib, re, subprocess, sys, tempfile, threading

# Libraries whose reference may still be missing (written on another branch).
PENDING = {"http"}

LIST_FUNCTIONS = r"""
local names = {}
local function walk(prefix, t, depth)
  for k, v in pairs(t) do
    if type(k) == "string" and type(v) == "function" then names[#names + 1] = prefix .. k
    elseif type(k) == "string" and type(v) == "table" and depth < 2 then walk(prefix .. k .. ".", v, depth + 1) end
  end
end
for _, lib in ipairs(init_data) do walk(lib .. ".", _G[lib], 0) end
table.sort(names)
return names
"""

BLOCK = re.compile(r"^```(\w*)\n(.*?)^```\n(?:\s*^```json\n(.*?)^```\n)?", re.M | re.S)


class Echo(http.server.BaseHTTPRequestHandler):
    def answer(self):
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        reply = json.dumps({"method": self.command, "path": self.path,
                            "headers": dict(self.headers), "body": body.decode("latin-1")}).encode()
        self.send_response(200)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(reply)))
        self.end_headers()
        self.wfile.write(reply)
    do_GET = do_POST = do_PUT = do_DELETE = answer

    def log_message(self, *args):
        pass


def run(runner, args, **kw):
    return subprocess.run([runner] + args, capture_output=True, text=True, timeout=60, **kw)


def coverage(runner, docs, libs):
    out = run(runner, ["eval", LIST_FUNCTIONS, "--args", json.dumps(libs)])
    if out.returncode != 0:
        return ["listing the functions failed: " + out.stderr]
    errors = []
    for lib in libs:
        page = docs / (lib + ".md")
        if not page.exists():
            if lib not in PENDING:
                errors.append(f"{page} is missing")
            continue
        text = page.read_text()
        for name in json.loads(out.stdout)[0]:
            if name.startswith(lib + ".") and not re.search(r"`" + re.escape(name) + r"\b", text):
                errors.append(f"{page.name}: {name} is not documented")
    return errors


def examples(runner, root, pages):
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Echo)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    address = "127.0.0.1:%d" % server.server_address[1]
    programs = {p.read_text(): p for p in (root / "examples").rglob("*.cpp")}
    errors, count = [], 0
    with tempfile.TemporaryDirectory() as scratch:
        for page in pages:
            text = page.read_text()
            for block in BLOCK.finditer(text):
                lang, code, expected = block.groups()
                where = f"{page.name}:{text.count(chr(10), 0, block.start()) + 1}"
                if lang == "cpp" and "int main(" in code and code not in programs:
                    errors.append(f"{where}: this program is not a file of examples/")
                if lang != "lua":
                    continue
                count += 1
                script = pathlib.Path(scratch) / f"example{count}.lua"
                script.write_text(code.replace("127.0.0.1:8080", address))
                out = run(runner, ["run", str(script), "--json-only"], cwd=scratch)
                if out.returncode != 0:
                    errors.append(f"{where}: failed: {out.stderr.strip()}")
                elif expected is not None and out.stdout.strip() != expected.strip():
                    errors.append(f"{where}: printed {out.stdout.strip()}\n  shown   {expected.strip()}")
    server.shutdown()
    return errors, count


def main():
    runner, root = sys.argv[1], pathlib.Path(sys.argv[2])
    docs = root / "docs"
    errors = coverage(runner, docs, ["cv", "http", "json", "xml", "base64"])
    found, count = examples(runner, root, sorted(docs.glob("*.md")) + [root / "README.md"])
    errors += found
    print(f"{count} examples run")
    for error in errors:
        print(error)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
