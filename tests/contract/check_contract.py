#!/usr/bin/python3
"""Checks the answers that the end-to-end tests received against docs/openapi.yaml.

The end-to-end client, run with WHTTPD_CONTRACT_DIR set, keeps every answer as
one JSON line (method, path with query, status, Content-Type, body) in
contract-<pid>.jsonl files there.  For each one this finds the operation of the
OpenAPI document (method and path template below the server's /api/v1; a path
key with a query, "FOTA?action=online", is its own URI, chosen when the
request's target begins with it, as the daemon routes), the response for the
status (or "default"), the media type for the Content-Type, and validates the
body with a JSON Schema Draft 2020-12 validator that resolves the document's
"#/components/..." references.  A server-sent event stream (a media type
with "x-events") is checked event by event: each needs a numeric id, a name
that "x-events" lists and data that fits that name's schema.

Fails on an answer that does not validate and on an exchange whose path,
method, status or Content-Type the document does not describe; reports how
many exchanges and operations were checked and which documented operations
no test exercised.

    check_contract.py [--doc docs/openapi.yaml] DIR...   check recorded answers
    check_contract.py --schemas-only                      check the document's schemas
    check_contract.py --self-test                         show that drift is caught
"""

import argparse
import collections
import glob
import json
import os
import re
import sys

import jsonschema
import yaml
from jsonschema import Draft202012Validator

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_DOC = os.path.join(HERE, "..", "..", "docs", "openapi.yaml")
METHOD_LIST = json.dumps(["/api/v1/" + u for u in (
    "UserLogin", "UserLogout", "MethodList", "Reboot", "MeshReboot", "MeshResetAllSetting",
    "UserUpdate", "APPUICustomization", "TR181/Value/", "TR181/Value/MultiObjects",
    "TR181/SupportedDM/", "FOTA?action=online", "FOTA", "Events")])
METHODS = ("get", "put", "post", "delete", "options", "head", "patch", "trace")


class Contract:
    def __init__(self, doc):
        self.doc = doc
        self.resolver = jsonschema.RefResolver.from_schema(doc)
        # The base path of the (first) server: "/api/v1".
        url = doc["servers"][0]["url"]
        self.base = "/" + url.split("://", 1)[1].split("/", 1)[1].rstrip("/")
        self.routes = []
        for key, item in doc["paths"].items():
            if "?" in key:
                # A URI told apart by its query: the daemon takes every target
                # that begins with it.
                self.routes.append((0, key, lambda target, key=key: target == key or
                                    target.startswith(key + "&")))
            else:
                concrete = "{" not in key
                regex = re.compile(
                    "^" + re.sub(r"\\\{[^}]*\\\}", "[^/]+", re.escape(key)) + "$")
                # Concrete paths win over templates, as OpenAPI orders them.
                self.routes.append((1 if concrete else 2, key,
                                    lambda target, regex=regex: regex.match(target.split("?", 1)[0])))
        self.routes.sort(key=lambda r: r[0])
        self.validators = {}

    def deref(self, obj):
        while isinstance(obj, dict) and "$ref" in obj:
            ref = obj["$ref"]
            if not ref.startswith("#/"):
                raise ValueError("only local references are used: " + ref)
            obj = self.doc
            for part in ref[2:].split("/"):
                obj = obj[part.replace("~1", "/").replace("~0", "~")]
        return obj

    def operations(self):
        for key, item in self.doc["paths"].items():
            for method in METHODS:
                if method in item:
                    yield method.upper(), key

    def schemas(self):
        """Every schema of the document, with where it stands."""
        found = []

        def walk(node, where):
            if isinstance(node, dict):
                for k, v in node.items():
                    if k == "schema" and isinstance(v, dict):
                        found.append((where + "/schema", v))
                    elif k == "schemas" and where == "/components":
                        for name, s in v.items():
                            found.append(("/components/schemas/" + name, s))
                    else:
                        walk(v, where + "/" + str(k))
            elif isinstance(node, list):
                for i, v in enumerate(node):
                    walk(v, where + "/" + str(i))

        walk(self.doc, "")
        return found

    def check_schemas(self):
        errors = []
        for where, schema in self.schemas():
            try:
                Draft202012Validator.check_schema(schema)
            except jsonschema.SchemaError as e:
                errors.append("%s: %s" % (where, e.message))
        return errors

    def route(self, target):
        for _, key, match in self.routes:
            if match(target):
                return key
        return None

    def validator(self, schema):
        k = id(schema)
        if k not in self.validators:
            self.validators[k] = Draft202012Validator(schema, resolver=self.resolver)
        return self.validators[k]

    def check(self, rec):
        """(operation, problem): problem is None when the answer fits."""
        method, path, status = rec["method"], rec["path"], rec["status"]
        if not path.startswith(self.base + "/"):
            return None, "path outside %s/ answered" % self.base
        target = path[len(self.base):]
        key = self.route(target)
        if key is None:
            return None, "no path of the document matches %s" % target
        op = self.doc["paths"][key].get(method.lower())
        if op is None:
            return None, "%s %s is not described" % (method, key)
        opname = "%s %s" % (method, key)
        responses = op.get("responses", {})
        response = responses.get(str(status), responses.get("default"))
        if response is None:
            return opname, "status %s is not described" % status
        response = self.deref(response)
        problem = self.check_headers(response, rec)
        if problem:
            return opname, problem
        content = response.get("content")
        body = rec.get("body") or ""
        if not content:
            return opname, None if body == "" else "a body where the document describes none"
        ctype = (rec.get("content_type") or "").split(";")[0].strip().lower()
        media = content.get(ctype)
        if media is None:
            return opname, "Content-Type %r is not described for status %s" % (ctype, status)
        if "x-events" in media:
            return opname, self.check_events(media["x-events"], body,
                                             media.get("x-events-without-id", ()))
        schema = media.get("schema")
        if schema is None:
            return opname, None
        if ctype.endswith("json"):
            try:
                value = json.loads(body)
            except ValueError as e:
                return opname, "body is no JSON: %s" % e
        else:
            value = body
        errs = sorted(self.validator(schema).iter_errors(value), key=lambda e: list(e.path))
        if errs:
            best = jsonschema.exceptions.best_match(errs)
            where = "/".join(str(p) for p in best.absolute_path) or "(body)"
            return opname, "status %s: at %s: %s" % (status, where, best.message[:300])
        return opname, None


    def check_events(self, kinds, body, without_id=()):
        """A server-sent event stream, read as a browser reads it (the WHATWG
        algorithm: LF, CR or CRLF line ends, one space after the colon
        dropped, a blank line dispatching): every event has a name the
        document lists and data that fits that name's schema; every event
        but those named in `without_id` sets a numeric id in its block;
        every id on the stream (an event's, or a block's without data that
        only moves the position) comes after the one before it."""
        last = -1
        lines = re.split(r"\r\n|\r|\n", body)
        blocks, block = [], []
        for line in lines:
            if line:
                block.append(line)
            elif block:
                blocks.append(block)
                block = []
        for block in blocks:
            fields, data = {}, []
            for line in block:
                if line.startswith(":"):
                    continue
                name, sep, value = line.partition(":")
                value = value[1:] if value.startswith(" ") else value
                if name == "data":
                    data.append(value)
                elif name in ("id", "event", "retry") and name not in fields:
                    fields[name] = value
                else:
                    return "field %r is not one the stream describes, or comes twice" % line[:80]
            if "retry" in fields and not fields["retry"].isdigit():
                return "retry %r is no number" % fields["retry"]
            if "id" in fields:
                if not fields["id"].isdigit():
                    return "event id %r is no number" % fields["id"]
                if int(fields["id"]) <= last:
                    return "id %s does not come after %d" % (fields["id"], last)
                last = int(fields["id"])
            if not data:
                if "event" in fields:
                    return "event %r without data" % fields["event"]
                continue
            event = fields.get("event", "message")
            schema = kinds.get(event)
            if schema is None:
                return "event %r is not described" % event
            if "id" not in fields and event not in without_id:
                return "%s event without its id" % event
            try:
                value = json.loads("\n".join(data))
            except ValueError as e:
                return "event data is no JSON: %s" % e
            errs = list(self.validator(schema).iter_errors(value))
            if errs:
                best = jsonschema.exceptions.best_match(errs)
                return "%s event: %s" % (event, best.message[:300])
        return None

    def check_headers(self, response, rec):
        """Headers the document says an answer always carries are there and
        fit their schemas (when the exchange recorded its headers)."""
        got = rec.get("headers")
        if got is None:
            return None
        for name, header in (response.get("headers") or {}).items():
            header = self.deref(header)
            value = got.get(name.lower())
            if value is None:
                if header.get("required"):
                    return "header %s is missing" % name
                continue
            schema = header.get("schema", {})
            if schema.get("type") == "integer":
                if not re.fullmatch(r"-?\d+", value):
                    return "header %s %r is no integer" % (name, value)
                continue
            errs = list(self.validator(schema).iter_errors(value))
            if errs:
                return "header %s: %s" % (name, errs[0].message[:200])
        return None


def load_records(dirs):
    records = []
    for d in dirs:
        for f in sorted(glob.glob(os.path.join(d, "*.jsonl"))):
            with open(f, "rb") as fh:
                for n, line in enumerate(fh, 1):
                    line = line.strip()
                    if line:
                        rec = json.loads(line.decode("utf-8", "replace"))
                        rec["_from"] = "%s:%d" % (os.path.basename(f), n)
                        records.append(rec)
    return records


def run(contract, records, out=sys.stdout):
    problems = collections.OrderedDict()
    used = collections.Counter()
    for rec in records:
        opname, problem = contract.check(rec)
        if opname:
            used[opname] += 1
        if problem:
            head = "%s %s -> %s: %s" % (rec["method"], re.sub(r"sessionkey=-?\d+", "sessionkey=K",
                                                              rec["path"]), rec["status"], problem)
            problems.setdefault((opname, problem) if opname else head, []).append((head, rec))
    every = list(contract.operations())
    print("contract: %d exchanges checked, %d of %d documented operations exercised" %
          (len(records), sum(1 for m, k in every if "%s %s" % (m, k) in used), len(every)),
          file=out)
    for m, k in every:
        n = used.get("%s %s" % (m, k), 0)
        print("  %6d  %s %s" % (n, m, k), file=out)
    unused = ["%s %s" % (m, k) for m, k in every if "%s %s" % (m, k) not in used]
    if unused:
        print("contract: never exercised (informational): " + ", ".join(unused), file=out)
    if problems:
        total = sum(len(v) for v in problems.values())
        print("contract: %d answers do not fit the document (%d kinds):" % (total, len(problems)),
              file=out)
        for kind, hits in problems.items():
            head, rec = hits[0]
            print("  [%dx] %s" % (len(hits), head), file=out)
            print("        e.g. %s body: %s" % (rec.get("_from", "?"), (rec.get("body") or "")[:300]),
                  file=out)
        return 1
    print("contract: every answer fits the document", file=out)
    return 0


def self_test(contract):
    """Answers that drifted from the document must be caught; fitting ones not."""
    base = contract.base
    good = [
        {"method": "POST", "path": base + "/UserLogin", "status": 200,
         "content_type": "application/json",
         "body": '{"sessionkey": 5, "oper_status": "Success", "MethodList": ' + METHOD_LIST + '}'},
        {"method": "GET", "path": base + "/TR181/Value/Device.NAT.?first_level_only=false",
         "status": 200, "content_type": "application/json",
         "body": '{"requested_path": "Device.NAT.", "oper_status": "Success", "Object": '
                 '{"PortMappingNumberOfEntries": 1, "PortMapping": [{"Enable": true, "ExternalPort": 80}]}}'},
        {"method": "POST", "path": base + "/FOTA?action=online&sessionkey=3", "status": 400,
         "content_type": "application/json", "body": '{"oper_status": "WCFG_INTERNAL_ERROR"}'},
        {"method": "GET", "path": base + "/MethodList", "status": 503, "content_type": "text/plain",
         "body": "Service Unavailable\n"},
        {"method": "GET", "path": base + "/NoSuchUri", "status": 200,
         "content_type": "application/json", "body": '{"oper_status": "Invalid URI"}'},
        {"method": "GET", "path": base + "/Events?path=Device.NAT.", "status": 200,
         "content_type": "text/event-stream",
         "body": 'retry: 2400\nid: 3\n\n'
                 'id: 4\nevent: add\ndata: {"path":"Device.NAT.PortMapping.2.","Object":{"Enable":false}}\n\n'
                 ': keep-alive\n\nid: 5\nevent: delete\ndata: {"path":"Device.NAT.PortMapping.2."}\n\n'
                 ': keep-alive\nid: 9\n\nevent: end\ndata: {"reason":"logout"}\n\n'},
        # another way of ending lines, a busy answer (no id)
        {"method": "GET", "path": base + "/Events", "status": 200,
         "content_type": "text/event-stream",
         "body": 'retry: 7000\r\nevent: busy\r\ndata: {"reason":"too many streams"}\r\n\r\n'},
        {"method": "GET", "path": base + "/TR181/Value/Device.NAT.", "status": 200,
         "content_type": "application/json", "headers": {"x-event-id": "17"},
         "body": '{"requested_path": "Device.NAT.", "oper_status": "Success", "Object": {}}'},
    ]
    bad = [
        # an event name the document does not know, a data member too many,
        # an event without its id
        {"method": "GET", "path": base + "/Events", "status": 200,
         "content_type": "text/event-stream",
         "body": 'id: 4\nevent: changed\ndata: {"path":"Device.NAT.","Object":{}}\n\n'},
        {"method": "GET", "path": base + "/Events", "status": 200,
         "content_type": "text/event-stream",
         "body": 'id: 4\nevent: delete\ndata: {"path":"Device.NAT.","Object":{}}\n\n'},
        {"method": "GET", "path": base + "/Events", "status": 200,
         "content_type": "text/event-stream",
         "body": 'event: change\ndata: {"path":"Device.NAT.","Object":{}}\n\n'},
        # ids that go back after a resync; a retry that is no number
        {"method": "GET", "path": base + "/Events", "status": 200,
         "content_type": "text/event-stream",
         "body": 'id: 9\nevent: resync\ndata: {"reason":"events lost"}\n\n'
                 'id: 8\nevent: delete\ndata: {"path":"Device.NAT.PortMapping.2."}\n\n'},
        {"method": "GET", "path": base + "/Events", "status": 200,
         "content_type": "text/event-stream", "body": 'retry: 2s\nid: 3\n\n'},
        # a value read without the position it shows
        {"method": "GET", "path": base + "/TR181/Value/Device.NAT.", "status": 200,
         "content_type": "application/json", "headers": {},
         "body": '{"requested_path": "Device.NAT.", "oper_status": "Success", "Object": {}}'},
        # the key as text
        {"method": "POST", "path": base + "/UserLogin", "status": 200,
         "content_type": "application/json",
         "body": '{"sessionkey": "5", "oper_status": "Success", "MethodList": ' + METHOD_LIST + '}'},
        # a URI missing from the list
        {"method": "GET", "path": base + "/MethodList", "status": 200,
         "content_type": "application/json",
         "body": '{"oper_status": "Success", "MethodList": ' + METHOD_LIST.replace('"/api/v1/Reboot", ', '') + '}'},
        # a status text the daemon does not give
        {"method": "PUT", "path": base + "/TR181/Value/Device.NAT.PortMapping.1.?sessionkey=1",
         "status": 200, "content_type": "application/json",
         "body": '{"requested_path": "Device.NAT.PortMapping.1.", "oper_status": "OK", "sessionkey": 2}'},
        # a write answer without the next key
        {"method": "DELETE", "path": base + "/TR181/Value/Device.NAT.PortMapping.1.?sessionkey=1",
         "status": 200, "content_type": "application/json",
         "body": '{"requested_path": "Device.NAT.PortMapping.1.", "oper_status": "Success"}'},
        # a nested value that is no TR-181 value
        {"method": "GET", "path": base + "/TR181/Value/Device.NAT.", "status": 200,
         "content_type": "application/json",
         "body": '{"requested_path": "Device.NAT.", "oper_status": "Success", "Object": {"A": null}}'},
        # an undocumented status, method, path, media type and a body that is no JSON
        {"method": "GET", "path": base + "/MethodList", "status": 418,
         "content_type": "application/json", "body": '{"oper_status": "Success"}'},
        {"method": "DELETE", "path": base + "/MethodList", "status": 200,
         "content_type": "application/json", "body": '{"oper_status": "Success"}'},
        {"method": "GET", "path": base + "/NoSuchUri", "status": 200,
         "content_type": "application/json", "body": '{"oper_status": "Success"}'},
        {"method": "GET", "path": base + "/TR181/Nothing/Device.", "status": 200,
         "content_type": "application/json", "body": '{"oper_status": "Invalid URI"}'},
        {"method": "GET", "path": "/api/v2/MethodList", "status": 200,
         "content_type": "application/json", "body": '{"oper_status": "Success"}'},
        {"method": "GET", "path": base + "/MethodList", "status": 200, "content_type": "text/html",
         "body": "<p>"},
        {"method": "GET", "path": base + "/MethodList", "status": 200,
         "content_type": "application/json", "body": '{"oper_status": "Success", "MethodList": ['},
        # the upgrade URI only when its query comes first: this is the check
        {"method": "POST", "path": base + "/FOTA?sessionkey=3&action=online", "status": 200,
         "content_type": "application/json", "body": '{"oper_status": "WCFG_SUCCESS"}'},
        # a firmware answer in the value handlers' words
        {"method": "GET", "path": base + "/FOTA", "status": 200,
         "content_type": "application/json", "body": '{"oper_status": "Success"}'},
    ]
    failed = 0
    for rec in good:
        _, problem = contract.check(rec)
        if problem:
            print("self-test: a fitting answer was refused: %s %s: %s" %
                  (rec["method"], rec["path"], problem))
            failed += 1
    for rec in bad:
        _, problem = contract.check(rec)
        if not problem:
            print("self-test: a drifted answer passed: %s %s %s" %
                  (rec["method"], rec["path"], rec["body"]))
            failed += 1
    # And the whole run fails on them, with the list.
    sink = open(os.devnull, "w")
    if run(contract, good + bad, out=sink) == 0 or run(contract, good, out=sink) != 0:
        print("self-test: the run's verdict is wrong")
        failed += 1
    print("contract self-test: %d fitting and %d drifted answers, %s" %
          (len(good), len(bad), "ok" if not failed else "%d wrong" % failed))
    return 1 if failed else 0


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--doc", default=DEFAULT_DOC)
    ap.add_argument("--self-test", action="store_true")
    ap.add_argument("--schemas-only", action="store_true")
    ap.add_argument("dirs", nargs="*")
    args = ap.parse_args()
    with open(args.doc) as fh:
        contract = Contract(yaml.safe_load(fh))
    errors = contract.check_schemas()
    if errors:
        print("contract: schemas of the document that are no valid JSON Schema 2020-12:")
        for e in errors:
            print("  " + e)
        return 1
    if args.self_test:
        return self_test(contract)
    if args.schemas_only:
        print("contract: %d schemas of the document are valid" % len(contract.schemas()))
        return 0
    if not args.dirs:
        ap.error("name the directories of recorded answers")
    records = load_records(args.dirs)
    if not records:
        print("contract: no recorded answers in " + " ".join(args.dirs))
        return 1
    return run(contract, records)


if __name__ == "__main__":
    sys.exit(main())
