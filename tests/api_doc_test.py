"""docs/api.md against what it describes, so that it cannot drift: a section
for every method of the module's table and for nothing else, and a table row
for every code the module, the host or the administration page knows and for
nothing else.

usage: api_doc_test.py WEBAPI_HOST SOURCE_DIR
"""
import re
import subprocess
import sys

host, root = sys.argv[1:3]


def read(path):
    with open(f"{root}/{path}", encoding="utf-8") as f:
        return f.read()


doc = read("docs/api.md")
served = {tuple(line.split()) for line in
          subprocess.run([host, "list"], check=True, capture_output=True, text=True).stdout.splitlines()}
described = {(api, version, method) for method, api, version in
             re.findall(r"^### `(\S+)` \((\S+), version (\d+)\)$", doc, re.M)}

codes = {int(c) for c in re.findall(r"\b(3\d{3})\b", read("src/pellixcenter.cpp"))}
# Below 100 are the page's own (0: the host did not answer).
codes |= {int(c) for c in re.findall(r"^\s*(\d+):", read("web/messages.js"), re.M) if int(c) >= 100}
for header in ("host/harness.h", "host/request.h"):
    codes |= {int(c) for c in re.findall(r"constexpr int kErr\w+ = (\d+);", read(header))}
listed = {int(c) for c in re.findall(r"^\| (\d{3,4}) \|", doc, re.M)}

failures = [f"no section for {' '.join(m)}" for m in sorted(served - described)]
failures += [f"a section for {' '.join(m)}, which the module does not serve" for m in sorted(described - served)]
failures += [f"no row for code {c}" for c in sorted(codes - listed)]
failures += [f"a row for code {c}, which nothing answers" for c in sorted(listed - codes)]
print("\n".join(failures) or f"docs/api.md: {len(served)} methods, {len(codes)} codes")
sys.exit(1 if failures else 0)
