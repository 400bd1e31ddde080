"""What watch and shadow watch print for programs: a line of JSON for each change, at once."""

import json
import os
import struct
import subprocess
import unittest

import jsonschema

from support import BOARD, SOURCE, TARNREG, TIMEOUT, TarnregTest, environment, run


def validator():
    with open(os.path.join(SOURCE, "docs", "schemas", "tarnreg-watch-1.schema.json")) as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    return jsonschema.Draft202012Validator(schema)


class JsonLines(TarnregTest):
    def lines(self, text):
        documents = [json.loads(line) for line in text.splitlines()]
        for document in documents:
            validator().validate(document)
        return documents

    def test_of_a_watch_are_what_the_schema_says(self):
        result = run("--file", BOARD, "watch", "--json-lines", "--count", "1", "SCRATCH", "NOPE")
        self.assertEqual(result.code, 3)
        error, change = self.lines(result.out)
        self.assertEqual(error["name"], "NOPE")
        self.assertEqual(error["error"], {"code": "unknown-name", "text": "no register NOPE"})
        self.assertEqual((change["name"], change["value"], change["previous"]), ("SCRATCH", 0, None))
        self.assertEqual(result.err, "tarnreg: error: no register NOPE\n")

    def test_come_as_changes_do(self):
        space = self.write("space", bytes(1024))
        with subprocess.Popen([TARNREG, "--file", BOARD, "--transport", f"pci:{space}", "watch",
                               "SCRATCH", "--json-lines", "--interval", "0.01"],
                              stdout=subprocess.PIPE, text=True, env=environment()) as child:
            try:
                first = json.loads(child.stdout.readline())
                with open(space, "r+b") as file:
                    file.seek(16)
                    file.write(struct.pack("=I", 77))
                second = json.loads(child.stdout.readline())
            finally:
                child.terminate()
                child.wait(timeout=TIMEOUT)
        for document in (first, second):
            validator().validate(document)
        self.assertEqual((first["value"], first["previous"]), (0, None))
        self.assertEqual((second["value"], second["previous"]), (77, 0))
        self.assertGreaterEqual(second["time"], first["time"])

    def test_have_the_failure_of_a_device_that_does_not_open(self):
        result = run("--file", BOARD, "--transport", "i2c:/dev/none@0x50", "watch", "--json-lines")
        self.assertEqual(result.code, 5)
        (error,) = self.lines(result.out)
        self.assertEqual(error["error"]["code"], "device-error")

    def test_are_ascii_whatever_names_are(self):
        path = self.list(b"0,\xff\x1b\xe2\x82\xac,control,true,8\n")
        result = run("--file", path, "watch", "--json-lines", "--count", "1")
        self.assertTrue(result.out.isascii())
        self.assertNotIn("\x1b", result.out)
        self.assertEqual(self.lines(result.out)[0]["name"], "\ufffd\x1b\u20ac")

    def test_go_without_a_document(self):
        result = run("--file", BOARD, "--json", "watch", "--json-lines", "--count", "1")
        self.assertEqual(result.code, 2)
        self.assertIn("--json-lines goes without --json", result.err)

    def test_schema_tells_changes_from_failures(self):
        schema = validator()
        self.assertFalse(schema.is_valid({"schema": "tarnreg-watch/1", "time": 1}))
        self.assertFalse(schema.is_valid({"schema": "tarnreg-watch/1", "time": 1, "name": "A", "value": 1}))


if __name__ == "__main__":
    unittest.main()
