#!/usr/bin/env python3
"""Keeps docs/ honest. Usage: docs_check.py RUNNER SOURCE_DIR

- Every function the libraries expose at run time is named in docs/<library>.md.
- Every ```lua block of docs/*.md runs through the runner; a ```json block
  right after it is what the runner must print. 127.0.0.1:8080 in an example
  is pointed at the HTTP tests' scripted peer (tests/http/fixtures), started
  here: /echo answers with the raw request, and so on.
- Every ```cpp block with a main() (README.md included) must be a file of
  examples/ verbatim: those are built and run against an installed copy.
"""
import json, pathlib, re, subprocess, sys, tempfile, time

LIBRARIES = ["cv", "http", "json", "xml", "base64"]
PENDING = set()  # pages another branch has yet to write; none now
LIST_FUNCTIONS = """local names = {}
local function walk(prefix, t, depth)
  for k, v in pairs(t) do
    if type(k) ~= "string" then
    elseif type(v) == "function" then names[#names + 1] = prefix .. k
    elseif type(v) == "table" and depth < 2 then walk(prefix .. k .. ".", v, depth + 1) end
  end
end
for _, lib in ipairs(init_data) do walk(lib .. ".", _G[lib], 0) end
return names"""
BLOCK = re.compile(r"^```(\w*)\n(.*?)^```\n(?:\s*^```json\n(.*?)^```\n)?", re.M | re.S)


def run(*args, **kw):
    return subprocess.run(list(args), capture_output=True, text=True, timeout=60, **kw)


def main(runner, root):
    errors = []
    listed = run(runner, "eval", LIST_FUNCTIONS, "--args", json.dumps(LIBRARIES))
    if listed.returncode != 0:
        errors.append("listing the functions failed: " + listed.stderr)
    for name in json.loads(listed.stdout or "[[]]")[0]:
        page = root / "docs" / (name.split(".")[0] + ".md")
        if page.exists() or name.split(".")[0] not in PENDING:
            if not page.exists() or not re.search("`" + re.escape(name) + r"\b", page.read_text()):
                errors.append(f"{name} is not documented in {page.name}")

    programs = {p.read_text() for p in (root / "examples").rglob("*.cpp")}
    count = 0
    with tempfile.TemporaryDirectory() as scratch:
        ready = pathlib.Path(scratch, "port")
        peer = subprocess.Popen([sys.executable, str(root / "tests/http/fixtures/http_peer.py"), str(ready)])
        while not ready.exists() and peer.poll() is None:
            time.sleep(0.05)
        address = "127.0.0.1:" + (ready.read_text().split()[0] if ready.exists() else "0")
        for page in sorted((root / "docs").glob("*.md")) + [root / "README.md"]:
            text = page.read_text()
            for block in BLOCK.finditer(text):
                lang, code, expected = block.groups()
                where = f"{page.name}:{text.count(chr(10), 0, block.start()) + 1}"
                if lang == "cpp" and "int main(" in code and code not in programs:
                    errors.append(f"{where}: this program is not a file of examples/")
                if lang != "lua":
                    continue
                count += 1
                script = pathlib.Path(scratch, f"example{count}.lua")
                script.write_text(code.replace("127.0.0.1:8080", address))
                out = run(runner, "run", str(script), "--json-only", cwd=scratch)
                if out.returncode != 0:
                    errors.append(f"{where}: failed: {out.stderr.strip()}")
                elif expected is not None and out.stdout.strip() != expected.strip():
                    errors.append(f"{where}: printed {out.stdout.strip()}\n  shown   {expected.strip()}")
        peer.kill()
    print(f"{count} examples run", *errors, sep="\n")
    return 1 if errors or count == 0 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], pathlib.Path(sys.argv[2])))
