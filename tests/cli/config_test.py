"""The check of a configuration file."""
import json
import os
import re

from cli_case import IS_WINDOWS, CliTest, linux_only


class Config(CliTest):
    def setUp(self):
        super().setUp()
        # The parser of the system forgets what it made for a grammar in another file.
        leaks = self.file("leaks", b"leak:xercesc_3_2::XMLScanner::scanProlog\n")
        self.environment["LSAN_OPTIONS"] = "print_suppressions=0:suppressions=" + leaks

    THROWS = ("2:1: error: Applying this entry throws NumberFormatException, which ends a program that does not catch "
              "it.")
    FILE = b"""<?xml version="1.0"?>
<!-- <QvtpClient function="no"/> -->
<configuration>
  <QvtpClient function="billing" component="front&amp;end" connect_timeout="5000"
              stale_timeout = '10000'/>
  <QvtpServer function="billing" component="\xc3\xbc" max_request_processors="0"></QvtpServer>
  <other><![CDATA[ <QvtpClient function="no"/> ]]></other>
</configuration>
"""

    def check(self, content, *arguments):
        result = self.run_it("config", "check", self.file("c.xml", content), *arguments)
        self.assertEqual(result.stderr, b"")
        return result.returncode, result.stdout.decode().replace(self.root + "/", "")

    def findings(self, *lines):
        """Of a file with these lines; those of every finding, without the name of the file."""
        code, out = self.check("\n".join(lines).encode())
        found = [line[6:] for line in out.splitlines() if re.match(r"c\.xml:.*(error|warning): ", line)]
        self.assertEqual(code, 1 if found else 0)
        return found

    def test_prints_what_each_entry_comes_to(self):
        code, out = self.check(self.FILE)
        self.assertEqual(code, 0)
        self.assertEqual(out.splitlines(), [
            'c.xml:4:3: QvtpClient function="billing" component="front&end"',
            "    connect_timeout=5000", "    stale_timeout=10000", "    buffer_size=40960 (default)",
            'c.xml:6:3: QvtpServer function="billing" component="\u00fc"', "    max_request_processors=0",
            "    accept_timeout=0 (default)", "    idle_timeout=13000 (default)", "    receive_timeout=3000 (default)",
            "    buffer_size=4096 (default)"])

    def test_says_which_entry_matches(self):
        code, out = self.check(self.FILE, "--function", "billing", "--component", "\u00fc")
        self.assertEqual(code, 0)
        self.assertEqual([line for line in out.splitlines() if line.startswith("c.xml")],
                         ['c.xml: no QvtpClient function="billing" component="\u00fc"',
                          'c.xml:6:3: QvtpServer function="billing" component="\u00fc"'])
        code, out = self.check(self.FILE, "--function", "Billing", "--json")
        self.assertEqual(code, 1)
        self.assertEqual([entry["found"] for entry in json.loads(out)["entries"]], [False, False])
        self.assertEqual(json.loads(out)["entries"][0]["options"]["connect_timeout"], 60000)

    def test_prints_json(self):
        code, out = self.check(b'<c>\n<QvtpServer function="f" idle_timeut="1" buffer_size="7"/></c>', "--json")
        report = json.loads(out)
        self.assertEqual((code, report["read"], report["findings"]),
                         (1, True, [{"severity": "error", "line": 2, "column": 26,
                                     "text": 'QvtpServer has no attribute "idle_timeut": it is skipped. '
                                             "Is idle_timeout meant?"}]))
        entry = report["entries"][0]
        self.assertEqual((entry["line"], entry["column"], entry["function"], entry["component"]), (2, 1, "f", ""))
        self.assertEqual(entry["options"]["buffer_size"], 7)
        self.assertEqual(entry["defaults"], ["max_request_processors", "accept_timeout", "idle_timeout",
                                             "receive_timeout"])

    def test_names_unknown_attributes_with_their_place(self):
        self.assertEqual(self.findings("<c>", '<QvtpClient function="\u00fc\u00fc" idle_timeout="1"', '   colour="red"',
                                       "\tConnect_Timeout='1' read_timeout='2'/>", "</c>"),
                         ['2:27: error: QvtpClient has no attribute "idle_timeout": it is skipped. QvtpServer has it.',
                          '3:4: error: QvtpClient has no attribute "colour": it is skipped.',
                          '4:2: error: QvtpClient has no attribute "Connect_Timeout": it is skipped. '
                          "Is connect_timeout meant?", "4:22: warning: read_timeout is not supported, and skipped."])

    def test_names_values_out_of_range(self):
        self.assertEqual(self.findings('<c><QvtpServer buffer_size="0" max_request_processors="2" idle_timeout="-1"/>',
                                       '<QvtpClient stale_timeout="-1" connect_timeout="0" buffer_size="1"/></c>'),
                         ["1:16: warning: buffer_size: 0 works as 1.",
                          "1:32: warning: max_request_processors: 2 works as 3; without limit is 0.",
                          "1:59: warning: idle_timeout: -1 works as 24 to 50 days; without limit is 0.",
                          "2:13: warning: stale_timeout: -1 works as 0: no connection is used twice."])

    def test_names_values_that_are_no_numbers(self):
        for value in ("eight", "", "1.5", "0x10", "1 2", "--1"):
            found = self.findings("<c>", '<QvtpClient connect_timeout="%s"/>' % value, "</c>")
            self.assertEqual(found, [self.THROWS, '2:13: error: connect_timeout: "%s" is no number.' % value])
        self.assertEqual(self.findings('<c><QvtpClient connect_timeout=" +15 "/></c>'), [])

    def test_names_numbers_that_do_not_fit(self):
        for value in ("99999999999999999999", "-9223372036854775809"):
            found = self.findings("<c>", '<QvtpClient connect_timeout="%s"/>' % value, "</c>")
            self.assertEqual(found, [self.THROWS, "2:13: error: connect_timeout: %s does not fit into 32 bits." % value])
        if IS_WINDOWS:
            return  # where the parser refuses the following ones too
        for value, result in (("2147483648", -2147483648), ("-2147483649", 2147483647), ("4294967297", 1)):
            content = '<c><QvtpClient connect_timeout="%s"/></c>' % value
            self.assertEqual(self.findings(content), ["1:16: error: connect_timeout: %s does not fit into 32 bits: "
                                                      "the option gets %d." % (value, result)])
            self.assertIn("    connect_timeout=%d\n" % result, self.check(content.encode())[1])

    def test_says_of_the_entry_that_throws_that_it_does(self):
        found = self.findings("<c>", '<QvtpClient stale_timeout="-1" colour="" buffer_size="x"/>',
                              '<QvtpClient buffer_size="x"/>', "</c>")
        self.assertEqual([line for line in found if "throws" in line], [self.THROWS])
        self.assertIn('3:13: error: buffer_size: "x" is no number.', found)

    def test_shows_no_options_of_an_entry_that_throws(self):
        content = b'<c><QvtpClient function="f" connect_timeout="1" buffer_size="x"/><QvtpServer/></c>'
        for arguments in ([], ["--function", "f"]):
            out = self.check(content, *arguments)[1].splitlines()
            self.assertEqual(out[0], 'c.xml:1:4: QvtpClient function="f" component=""')
            self.assertTrue(out[1].startswith("c.xml:"), out)
            entry = json.loads(self.check(content, "--json", *arguments)[1])["entries"][0]
            self.assertEqual((entry["line"], entry["options"], entry["defaults"]), (1, {}, []))

    def test_names_entries_that_are_never_used(self):
        self.assertEqual(self.findings("<c>", '<QvtpClient function="f"/>', '<QvtpServer function="f"/>',
                                       '<QvtpClient component="" function="f"/>', "<QvtpSever/><Other/>",
                                       "<Other><QvtpServer/></Other>", "</c>"),
                         ["4:1: error: This entry is never used: line 2 has one for the same function and component.",
                          "5:1: error: QvtpSever is no entry, and ignored. Is QvtpServer meant?",
                          "6:8: warning: QvtpServer is no child of the root element: it is ignored."])

    def test_says_where_a_file_is_malformed(self):
        for content, place in ((b"<a>\n<b></a>", "2:4"), (b"<a>\n<b x='1", "2:1"), (b"<a>\n", "2:1"),
                               (b"<a>\n<!-- ", "2:1"), (b"<a x=1/>", "1:1"), (b"", ""), (b"text", "")):
            code, out = self.check(content)
            self.assertEqual(code, 1, content)
            self.assertRegex(out, r"^c\.xml:%s error: .+\n$" % (place + ":" if place else ""))
            self.assertFalse(json.loads(self.check(content, "--json")[1])["read"])

    def test_says_of_a_file_that_ends_within_a_tag_where_it_ends(self):
        for content, place in ((b"<a", "1:3"), (b"<a>\n  <b\n", "3:1"), (b"<a><b x='1'", "1:12"), (b"<a><b x", "1:8"),
                               (b"<a><b x=", "1:9"), (b"<a><b x='1'\n\n  /", "3:4"), (b"<a>\n<b/></a", "2:5"),
                               (b"<a></a>\n<b", "2:1")):
            self.assertRegex(self.check(content)[1], r"^c\.xml:%s: error: .+\n$" % place)

    def test_knows_a_file_with_a_grammar(self):
        grammar = """<!DOCTYPE c [ <!-- ' <x> -->
            <!ELEMENT c (QvtpClient)*> <!ELEMENT QvtpClient EMPTY>
            <!ATTLIST QvtpClient function CDATA "g>"> ]>\n"""
        code, out = self.check(grammar.encode() + b"<c><QvtpClient/></c>", "--function", "g>")
        self.assertIn("buffer_size=40960 (default)", out)
        self.assertEqual(self.findings(grammar + "<c><QvtpClient function='f'/></c>"), [])
        found = self.findings(grammar + "<c><QvtpClient buffer='1'/></c>")
        self.assertEqual(len(found), 2, found)
        self.assertRegex(found[0], "^ error: .*buffer")  # the parser's own line
        self.assertEqual(found[1], '4:16: error: QvtpClient has no attribute "buffer": it is skipped.')

    def test_takes_numbers_of_any_length(self):
        for value in ("1" * 100000, "-" + "0" * 100000 + "1", "+" + "1" * 100000 + "x"):
            found = self.findings("<c>", '<QvtpClient connect_timeout="%s"/>' % value, "</c>")
            self.assertTrue(any(line.startswith("2:13: ") for line in found))

    def test_takes_files_of_any_length(self):
        entry = '<QvtpClient function="%d" buffer_size="0"/>'
        found = self.findings("<c>", *(entry % (i % 1000) for i in range(20000)), "</c>")
        self.assertEqual(len(found), 20000 + 19000)
        self.assertEqual(found[999], "1001:28: warning: buffer_size: 0 works as 1.")
        self.assertEqual(found[-1], "20001:28: warning: buffer_size: 0 works as 1.")
        self.findings("<c>", '<other text="%s"/>' % ("&amp;" * 200000), "</c>")
        self.assertEqual(self.check(b'<c x="' + b"&" * 400000 + b'"/>')[0], 1)

    def test_knows_line_ends_in_values(self):
        self.assertEqual(self.findings('<c><QvtpClient function="a\r\nb"/><QvtpClient function="a b"/>',
                                       '<QvtpServer function="a\n\rb"/><QvtpServer function="a  b"/></c>'),
                         ["2:5: error: This entry is never used: line 1 has one for the same function and component.",
                          "4:6: error: This entry is never used: line 3 has one for the same function and component."])
        code, out = self.check(b'<c><QvtpClient function="a\r\nb" buffer_size="9"/></c>', "--function", "a b")
        self.assertIn("    buffer_size=9", out.splitlines())

    def test_skips_instructions_in_a_grammar(self):
        out = self.check(b"<!DOCTYPE c [ <?x don't > ?> ]>\n<c><QvtpClient/></c>")[1]
        self.assertIn('c.xml:2:4: QvtpClient function="" component=""', out.splitlines())

    def test_names_entities(self):
        grammar = """<!DOCTYPE c [ <!ELEMENT c (QvtpClient)*> <!ELEMENT QvtpClient EMPTY>
            <!ATTLIST QvtpClient buffer_size CDATA #IMPLIED>
            <!ENTITY size "7"><!ENTITY more "<QvtpClient/>"> ]>"""
        self.assertEqual(self.findings(grammar, "<c><QvtpClient buffer_size='&size;'/>&more;</c>"),
                         ["3:13: warning: The document declares entities: what they stand for is not shown here."])

    REFERS = ('warning: The document type refers to "%s", which programs read too: what that declares is not shown here, '
              "and without it the whole file is refused.")

    def test_does_not_warn_of_a_file_that_is_no_text(self):
        self.assertEqual(self.findings("<!DOCTYPE c [ <!ELEMENT c EMPTY> <!NOTATION gif SYSTEM 'gif'>",
                                       "<!ENTITY p SYSTEM 'a.gif' NDATA gif> ]><c/>"),
                         ["2:1: warning: The document declares entities: what they stand for is not shown here."])

    @linux_only("a path without a drive is no place to start from there")
    def test_warns_of_a_grammar_in_another_file(self):
        self.file("c.dtd", b'<!ELEMENT c (QvtpClient)*> <!ELEMENT QvtpClient EMPTY> <!ENTITY size "7">'
                  b"<!ATTLIST QvtpClient function CDATA #IMPLIED buffer_size CDATA #IMPLIED>")
        for kind in ("SYSTEM", "PUBLIC '-//x//y'"):
            lines = ["<?xml version='1.0'?>", "<!DOCTYPE c", "  " + kind + ' "c.dtd">',
                     "<c><QvtpClient buffer_size='&size;'/></c>"]
            self.assertEqual(self.findings(*lines), ["3:3: " + self.REFERS % "c.dtd"])
        self.assertEqual(self.findings("<!DOCTYPE SYSTEM [ <!ELEMENT SYSTEM EMPTY> <!-- <!ENTITY a SYSTEM 'b'> -->",
                                       "<!NOTATION n SYSTEM 'x'> ]><SYSTEM/>"), [])

    def test_says_which_file_is_missing_and_makes_the_parser_refuse_all(self):
        for kind in ("SYSTEM", "PUBLIC '-//x//y'"):
            content = "<!DOCTYPE c " + kind + " './no.dtd'>\n<c><QvtpClient function='f'/></c>"
            found = self.findings(content)
            self.assertEqual(len(found), 2, found)
            self.assertRegex(found[0], r"^1:13: error: .*no\.dtd")  # the parser's own line
            self.assertEqual(found[1], "1:13: " + self.REFERS % "./no.dtd")
            self.assertFalse(json.loads(self.check(content.encode(), "--json")[1])["read"])
        found = self.findings("<!DOCTYPE c [ <!ELEMENT c ANY>", "<!ENTITY e SYSTEM 'no.xml'> ]>", "<c>&e;</c>")
        self.assertEqual(len(found), 2, found)
        self.assertRegex(found[0], r"^2:12: error: .*no\.xml")
        self.assertEqual(found[1], '2:12: warning: This entity refers to "no.xml", which programs read too where it is used: '
                         "what that declares is not shown here, and without it the whole file is refused.")

    def test_says_where_it_does_not_understand_what_is_right(self):
        out = self.check('<?xml version="1.1"?>\n<c><QvtpServer/>\n<a\u0085b="1"/><QvtpClient/></c>'.encode())[1]
        self.assertEqual([line for line in out.splitlines() if line.startswith("c.xml")],
                         ['c.xml:2:4: QvtpServer function="" component=""',
                          "c.xml:3:1: warning: No entries from here on are shown: this markup is not understood."])

    def test_shows_no_entries_of_a_file_that_is_not_used(self):
        code, out = self.check(b"<c><QvtpClient/><QvtpClient buffer='1'/>", "--json")
        report = json.loads(out)
        self.assertEqual((report["read"], report["entries"], len(report["findings"])), (False, [], 1))

    def test_uses_a_file_in_an_encoding_without_places(self):
        code, out = self.check('<?xml version="1.0" encoding="UTF-16"?><c><QvtpClient function="f" buffer_size="9"/></c>'
                               .encode("utf-16"), "--function", "f")
        self.assertEqual(code, 1)
        self.assertIn("    buffer_size=9", out)
        self.assertIn("c.xml: warning: No entry is shown: the file is in an encoding whose markup is not ASCII.", out)
        out = self.check('<?xml version="1.0" encoding="IBM037"?><c><QvtpClient/></c>'.encode("cp037"))[1]
        self.assertIn("c.xml: warning: No entry is shown: the file is in an encoding whose markup is not ASCII.", out)

    def test_looks_where_programs_look(self):
        self.environment["QvtpConfigurationFile"] = self.file("own.xml", b"<c/>")
        self.assertEqual(self.run_it("config", "check").returncode, 0)
        self.environment["QvtpConfigurationFile"] = self.root + "/missing"
        self.assertEqual(self.run_it("config", "check").returncode, 2)
        del self.environment["QvtpConfigurationFile"]
        self.assertEqual(self.run_it("config", "check", cwd=self.root).returncode, 2)
        self.file("QvtpConfig.xml", b"<c><QvtpClient/></c>")
        self.assertIn(b'QvtpConfig.xml:1:4: QvtpClient function="" component=""',
                      self.run_it("config", "check", cwd=self.root).stdout.splitlines())

    def test_checks_no_directory_and_no_pipe(self):
        result = self.run_it("config", "check", self.root)
        self.assertEqual((result.returncode, result.stdout), (2, b""))
        self.assertIn("Cannot read %s." % self.root, result.stderr.decode())
        if not IS_WINDOWS:
            result = self.run_it("config", "check", "/dev/stdin", data=self.FILE)
            self.assertEqual((result.returncode, result.stdout), (2, b""))
            self.assertIn("Cannot check /dev/stdin: it is no regular file", result.stderr.decode())

    def test_leaves_no_pipe_directory(self):
        self.check(self.FILE)
        self.assertFalse(os.path.exists(self.directory))

    def test_returns_2_for_wrong_usage(self):
        for arguments in ([], ["nonsense"], ["check", "a", "b"], ["check", self.root + "/missing"], ["check", "--x"]):
            result = self.run_it("config", *arguments)
            self.assertEqual((result.returncode, result.stdout), (2, b""), arguments)
