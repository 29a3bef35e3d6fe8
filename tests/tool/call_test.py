"""`nelo-rpc call`: arguments, results, and everything that can go wrong."""

import unittest

import tool
from tool import NO_NAME, NO_REPLY, NO_RESULT, REFUSED, SERVER, USAGE


class Arguments(tool.ToolTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.server = tool.wire.Program(cls.bus, "ToolServerProgram", SERVER)
        cls.addClassCleanup(cls.server.stop)

    def expect_echo(self, out, function, argument):
        self.expect(out, "call", SERVER, "Probe", function, argument)

    def expect_usage(self, text, *arguments):
        self.expect_failure(USAGE, text, "call", SERVER, "Probe", "Add", *arguments)

    def test_each_type_can_be_said(self):
        for out, function, argument in [
                ("-5", "EchoInt", "int:-5"), ("4000000000", "EchoUnsigned", "unsigned:4000000000"),
                ("true", "EchoBool", "bool:true"), ("false", "EchoBool", "bool:false"),
                ("1.5", "EchoFloat", "float:1.5"), ("21.1", "EchoDouble", "double:21.1"),
                ("a:b c", "EchoText", "string:a:b c"), ("", "EchoText", "string:"), ("text", "EchoCText", "cstring:text"),
                ("0011aaff", "EchoBytes", "bytes:0011AAff"), ("", "EchoBytes", "bytes:"), ("1", "EchoEnum", "enum:1")]:
            with self.subTest(argument=argument):
                self.expect_echo(out, function, argument)

    def test_without_a_type_the_form_decides(self):
        for function, argument in [("EchoInt", "-7"), ("EchoDouble", "2.5"), ("EchoBool", "true"),
                                   ("EchoText", "hello"), ("EchoText", "1.2.3"), ("EchoText", "-")]:
            with self.subTest(argument=argument):
                self.expect_echo(argument, function, argument)

    def test_two_dashes_let_words_begin_with_a_dash(self):
        self.expect("--json", "call", SERVER, "Probe", "EchoText", "--", "--json")

    def test_values_that_are_none_are_named(self):
        self.expect_usage("'x' is no int", "int:x")
        self.expect_usage("'3000000000' is no int", "int:3000000000")
        self.expect_usage("'3000000000' is no int: it is too large", "3000000000")
        self.expect_usage("'-1' is no unsigned", "unsigned:-1")
        self.expect_usage("'yes' is no bool: true or false is wanted", "bool:yes")
        self.expect_usage("'1,5' is no double", "double:1,5")
        self.expect_usage("two hexadecimal digits for each byte", "bytes:012")
        self.expect_usage("two hexadecimal digits for each byte", "bytes:0g")
        self.expect_usage("its number is wanted", "enum:Red")

    def test_a_type_that_there_is_not_is_named_with_the_one_that_was_meant(self):
        self.expect_usage("unknown type 'doule' in 'doule:1'; did you mean 'double'?", "doule:1")
        self.expect_usage("a text with a colon is written string:http://x", "http://x")

    def test_arguments_that_no_bus_carries_are_refused_before_anything_is_sent(self):
        self.expect_usage("the arguments cannot be sent", *["int:1"] * 100)


class Results(tool.ToolTest):
    def setUp(self):
        self.server = self.start()

    def test_a_result_is_printed_and_the_actor_destroyed(self):
        self.expect("5", "call", SERVER, "Probe", "Add", "2", "3")
        self.assertEqual(0, self.objects(self.server))

    def test_a_function_without_a_result_prints_true(self):
        self.expect("true", "call", SERVER, "Probe", "Nothing")

    def test_several_values_are_printed_with_their_indices(self):
        self.expect("0: 1\n5: a\nb", "call", SERVER, "Probe", "Two")

    def test_bytes_of_an_application_s_own_kind_are_printed(self):
        self.expect("01ff", "call", SERVER, "Probe", "OwnKind")

    def test_json_has_types_values_and_time(self):
        result, = self.json_of("call", SERVER, "Probe", "Two")
        self.assertEqual({"0": {"type": "int", "value": 1}, "5": {"type": "string", "value": "a\nb"}},
                         result["result"])
        self.assertGreater(result["actor"], 0)
        self.assertGreaterEqual(result["ms"], 0)

    def test_json_of_every_type_is_what_was_sent(self):
        for function, argument, value in [
                ("EchoInt", "int:-5", -5), ("EchoUnsigned", "unsigned:4000000000", 4000000000),
                ("EchoBool", "bool:true", True), ("EchoFloat", "float:1.5", 1.5), ("EchoDouble", "double:-0.1", -0.1),
                ("EchoDouble", "double:inf", "inf"), ("EchoText", 'string:Gr\u00fc\u00df "\\', 'Gr\u00fc\u00df "\\'),
                ("EchoCText", "cstring:x", "x"), ("EchoBytes", "bytes:00ff", "00ff"), ("EchoEnum", "enum:1", 1)]:
            with self.subTest(argument=argument):
                result, = self.json_of("call", SERVER, "Probe", function, argument)
                self.assertEqual({"type": argument.split(":")[0], "value": value}, result["result"]["0"])

    def test_an_unknown_function_is_no_result_and_the_actor_is_destroyed(self):
        self.expect_failure(NO_RESULT, "of type Probe has no function 'Ad'", "call", SERVER, "Probe", "Ad", "1")
        self.assertEqual(0, self.objects(self.server))

    def test_an_empty_answer_is_no_result(self):
        self.expect_failure(NO_RESULT, "or it gives nothing back", "call", SERVER, "Probe", "Empty")
        self.assertEqual(0, self.objects(self.server))

    def test_a_call_that_was_killed_is_told_apart_and_the_server_goes_on(self):
        self.expect_failure(NO_RESULT, "the call hung, and the server has killed it", "call", SERVER, "Probe", "Hang")
        self.expect("5", "call", SERVER, "Probe", "Add", "2", "3")


class Failures(tool.ToolTest):
    EXTRA_POLICY = '<policy context="mandatory"><deny send_destination="org.example.forbidden"/></policy>'

    def test_a_name_that_nobody_owns_is_named_with_the_one_that_was_meant(self):
        self.start()
        self.expect_failure(NO_NAME, "nobody owns org.example.nobody on the bus\n",
                            "call", "org.example.nobody", "Probe", "Add")
        self.expect_failure(NO_NAME, "did you mean 'org.example.probes'?",
                            "call", "org.example.probe", "Probe", "Add")

    def test_a_text_that_is_no_name_is_wrong_usage(self):
        for name in ["climate", "org..example", "org.ex ample", ""]:
            with self.subTest(name=name):
                self.expect_failure(USAGE, f"'{name}' is no bus name", "call", name, "Probe", "Add")

    def test_a_refusal_by_the_bus_names_the_rule_that_is_missing(self):
        self.start(name="org.example.forbidden")
        self.expect_failure(REFUSED, "refused: the policy of the bus lacks <policy user=",
                            "call", "org.example.forbidden", "Probe", "Add")

    def test_somebody_who_is_no_server_refuses(self):
        server = self.bus.run("dbus-send", "--system", "--print-reply", "--dest=org.freedesktop.DBus", "/",
                              "org.freedesktop.DBus.GetId")
        self.assertEqual(0, server.returncode)
        self.expect_failure(REFUSED, "refused: ", "call", "org.freedesktop.DBus", "Probe", "Add")

    def test_a_call_that_takes_too_long_is_given_up(self):
        self.start()
        self.expect_failure(NO_REPLY, "no reply within 0.3 s", "--timeout", "0.3", "call", SERVER, "Probe", "Sleep",
                            "800")
        self.expect("5", "call", SERVER, "Probe", "Add", "2", "3")

    def test_a_server_that_leaves_during_the_call_is_told_apart(self):
        self.start()
        self.expect_failure(NO_REPLY, f"{SERVER} has left the bus", "call", SERVER, "Probe", "Vanish")

    def test_a_type_that_the_server_does_not_have_ends_a_server_that_trusts_its_peers(self):
        self.start()
        self.expect_failure(NO_REPLY, "a server that trusts its peers ends when it is asked for a type that it does "
                            "not have", "call", SERVER, "Prob", "Add")

    def test_a_server_that_is_run_again_is_not_asked_to_destroy_what_another_one_made(self):
        first = self.start()
        self.expect_failure(NO_REPLY, "has left the bus", "call", SERVER, "Probe", "Vanish")
        first.wait()
        self.start()
        self.expect("5", "call", SERVER, "Probe", "Add", "2", "3")


if __name__ == "__main__":
    unittest.main()
