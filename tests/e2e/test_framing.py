"""Bytes on the pipe: what is a message, what is skipped, and what blocks all that follows. The daemon lives on."""

import json

from bench import pipeload


def frame(payload):
    """A frame in hexadecimal digits; `payload` is text or bytes."""
    data = payload if isinstance(payload, bytes) else payload.encode()
    return (len(data).to_bytes(4, "big") + data).hex()


def heartbeat(identity):
    return json.dumps({"action": "heartbeat", "request-id": identity})


def answers(messages):
    """The ids of the answers, in order; the "connected" event comes before them."""
    assert messages[0]["event"] == "connected"
    return [message["request-id"] for message in messages[1:]]


def exchange(bench, *lines):
    """Does what the lines say after the "connected" event has come; the ids of what was answered."""
    _, messages = pipeload.run(bench, "raw", ["sleep-until-message 5000", *lines, "close"])
    return answers(messages)


def test_a_frame_may_come_one_byte_at_a_time(running):
    digits = frame(heartbeat("slow"))
    bytewise = [f"hex {digits[at:at + 2]}" for at in range(0, len(digits), 2)]
    assert exchange(running, *bytewise, "sleep-until-message 5000", "expect-none 300") == ["slow"]


def test_two_frames_in_one_write_are_two_messages_in_order(running):
    assert exchange(running, f"hex {frame(heartbeat(1))}{frame(heartbeat(2))}", "sleep-until-message 5000",
                    "sleep-until-message 5000") == [1, 2]


def test_a_frame_and_a_half_and_the_rest(running):
    digits = frame(heartbeat(2))
    assert exchange(running, f"hex {frame(heartbeat(1))}{digits[:20]}", "sleep-until-message 5000",
                    "expect-none 300", f"hex {digits[20:]}", "sleep-until-message 5000") == [1, 2]


NO_OBJECTS = {
    "nothing": "",
    "an array": "[1,2,3]",
    "a string": '"text"',
    "a number": "42",
    "null": "null",
    "an open brace": "{",
    "broken": '{"action":}',
    "cut": '{"action":"heartbeat","request-id":"lost"',
    "not UTF-8": b'{"action":"heartbeat","request-id":"\xff\xfe"}',
    "binary": b"\x00\x01\x02",
}


def test_what_is_no_object_is_skipped_and_the_connection_goes_on(running):
    for what, payload in NO_OBJECTS.items():
        got = exchange(running, f"hex {frame(payload)}{frame(heartbeat('next'))}", "sleep-until-message 5000",
                       "expect-none 300")
        assert got == ["next"], what


def test_a_length_that_never_arrives_blocks_what_is_behind_it(running):
    for length in ("80000000", "fffffffc", "ffffffff", "7fffffff"):
        before = running.memory()["Private_Dirty"]
        got = exchange(running, f"hex {length}{frame(heartbeat('behind'))}", f"hex {frame(heartbeat('further'))}",
                       "expect-none 1000")
        assert got == [], length
        # Nothing is set aside ahead of what really came.
        assert running.memory()["Private_Dirty"] < before + 16 * 1024, length
    assert running.client().request("heartbeat")["status"] == "success"


def test_a_length_of_zero_is_consumed(running):
    assert exchange(running, f"hex 00000000{frame(heartbeat(1))}00000000", "sleep-until-message 5000",
                    "expect-none 300") == [1]


def test_a_large_request_comes_through_and_its_id_back(running):
    identity = "x" * 300_000
    _, messages = pipeload.run(running, "raw", [
        "sleep-until-message 5000",
        f"text {json.dumps({'action': 'nothing', 'request-id': identity, 'padding': 'y' * 500_000})}",
        "sleep-until-message 20000",
        "close",
    ])
    assert messages[1] == {"status": "error", "error": "Unknown action: nothing", "request-id": identity}
