"""docs/api.md and docs/webapi.schema.json against what they describe, so
that neither can drift: a section for every method of the module's table and
for nothing else, and a table row for every code the module, the host or the
administration page knows and for nothing else; the description valid JSON
Schema 2020-12, with every method, parameter, code and path the code has and
no other, and each method's parameters and codes those of its section here.

usage: api_doc_test.py WEBAPI_HOST SOURCE_DIR
"""
import json
import re
import subprocess
import sys

from jsonschema import Draft202012Validator

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


# What each handler reads and answers: its own body and those of the
# functions it calls. Where it tests for 3007 (kCodeGood, AnswerCode) the
# account codes' 3007 is its success, not an error.
source = read("src/pellixcenter.cpp")
bodies = dict(re.findall(r"^\S[^\n;]*?(\w+)\([^;{]*\{\n(.*?)^\}", source, re.M | re.S))
consts = {n: int(v) for header in ("src/pellixcenter.cpp", "host/harness.h", "host/request.h")
          for n, v in re.findall(r"constexpr int (kErr\w+) = (\d+);", read(header))}
tables = {t: {int(c) for c in re.findall(r"\b(3\d{3})\b", source.split(t + "[", 1)[1].split("};", 1)[0])}
          for t in ("grgAccountErrorTable", "grgErrorCodeMap")}
NAMED = r'(?:Text|ReadString|ReadCheckedString|HasParam|GetParam|Optional\w+|ReadFlag|isMember)\((?:request, )?"(\w+)"'


def reads(body, seen=()):
    names = set(re.findall(NAMED, body)) | set(re.findall(r'"(\w+)"', "".join(re.findall(r"for \(const char\* name : \{(.*?)\}", body))))
    codes = {consts[c] for c in re.findall(r"\bkErr\w+", body)} | {c for t in tables if t in body for c in tables[t]}
    for callee in set(re.findall(r"(?<![.>])\b(\w+)\(", body)) & bodies.keys() - set(seen):
        n, c = reads(bodies[callee], (*seen, callee))
        names, codes = names | n, codes | c
    return names, codes - ({3007} if "kCodeGood" in body or "AnswerCode(" in body else set())


schema = json.loads(read("docs/webapi.schema.json"))
Draft202012Validator.check_schema(schema)
found = {f"{a} {v} {m}": (*reads(bodies[h]), {100}) for a, v, m, h in
         re.findall(r'\{"([\w.]+)", (\d+), 0, "(\w+)", (\w+)\}', source)}
verifier = re.search(r'kApi\[\] = "(\S+)";', read("host/verifier.cpp"))[1]
for m, body in re.findall(r"VerifierApi::(\w+)\(.*?\{\n(.*?)^\}", read("host/verifier.cpp"), re.M | re.S):
    found[f"{verifier} 1 {m.lower()}"] = (*reads(body), set())
sections = dict(re.findall(r"^### `(\S+ \(\S+, version \d+)\)$(.*?)(?=^##)", doc + "\n##", re.M | re.S))
account = tables["grgAccountErrorTable"] - {3007}
failures = []
for key in found.keys() | schema["methods"].keys():
    m = schema["methods"].get(key)
    if not m or key not in found:
        failures.append(f"{key}: {'not have' if not m else 'have but not served'}")
        continue
    for part in ("params", "data", "errors"):
        Draft202012Validator.check_schema(m[part])
    names, answers, host_codes = found[key]
    have = (set(m["params"]["properties"]), set(m["errors"]["properties"]["code"]["enum"]))
    api, version, method = key.split()
    text = sections.get(f"{method}` ({api}, version {version}")
    if text is not None:
        rows = re.findall(r"^\| (\d{3,4}|any account code) \|(.*)", text, re.M)
        shown = ({n for line in re.findall(r"^\| (`.*?) \|", text, re.M) for n in re.findall(r"`(\w+)`", line)},
                 {int(c) for c, _ in rows if c.isdigit()} | {100} | {int(c) for c, rest in rows if not c.isdigit()
                                                            for c in re.findall(r"\b(3\d{3})\b", rest)})
        if any(c == "any account code" for c, _ in rows):
            shown[1].update(account)
        if shown != have:
            failures.append(f"{key}: docs/api.md has {shown}, the description {have}")
    if (names, answers | host_codes) != have:
        failures.append(f"{key}: the code reads {names} and answers {answers | host_codes}, the description {have}")
own = {v for v in consts.values() if v < 1000}
failures += [f"host code {c}: in the code or the description, not both" for c in own ^ set(map(int, schema["hostCodes"]))]
types = subprocess.run([sys.executable, f"{root}/scripts/webapi-types.py"], check=True, capture_output=True, text=True)
failures += [] if types.stdout == read("docs/webapi.d.ts") else ["docs/webapi.d.ts is not scripts/webapi-types.py's output"]
paths = {p for shown in re.findall(r'"(`/[^"]*)"(?:, \w+)?\}', read("host/routes.cpp")) for p in re.findall(r"`(/[^`]*)`", shown)}
failures += [f"path {p}: in the route table or the description, not both" for p in paths ^ schema["endpoints"].keys()]

failures += [f"no section for {' '.join(m)}" for m in sorted(served - described)]
failures += [f"a section for {' '.join(m)}, which the module does not serve" for m in sorted(described - served)]
failures += [f"no row for code {c}" for c in sorted(codes - listed)]
failures += [f"a row for code {c}, which nothing answers" for c in sorted(listed - codes)]
print("\n".join(failures) or f"docs/api.md and the description: {len(served)} methods, {len(codes)} codes")
sys.exit(1 if failures else 0)
