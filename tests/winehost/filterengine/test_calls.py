"""What the engine answers, without a socket and without a kernel."""

from types import SimpleNamespace

import pytest

from filterengine import codes
from filterengine.calls import Calls
from filterengine.objects import Objects

KEY = "{00000000-0000-0000-0000-00000000000A}"
OTHER_KEY = "{00000000-0000-0000-0000-00000000000B}"
FILTER = {"layer": "connect-v4", "sublayer": KEY, "name": "a filter", "description": "for tests", "flags": 0, "weight": 10,
          "action": "block", "conditions": [{"field": "remote-port", "value": 53}]}


class Engine:
    """Calls, and what was to be enforced after each change."""

    def __init__(self):
        self.enforced = []
        self._calls = Calls(Objects(), lambda rules: self.enforced.append([rule.id for rule in rules]),
                            lambda family, remote, local: 7 if remote.startswith("10.") else 2)
        self._tests = SimpleNamespace(session=None)  # a connection that has no session

    def connect(self, dynamic=True):
        made = SimpleNamespace(session=None)
        assert self.ask(made, "open", dynamic=dynamic, name="session", description="") == {"error": 0}
        return made

    def end(self, connection):
        self._calls.end(connection)

    def ask(self, connection, call, **members):
        return self._calls.answer(connection, {"call": call} | members)

    def error(self, connection, call, **members):
        return self.ask(connection, call, **members)["error"]

    def list(self, kind):
        return self.ask(self._tests, "list")[kind]

    def judge(self, **members):
        return self.ask(self._tests, "judge", **{
            "program": "p", "family": 4, "direction": "connect", "local": "0.0.0.0", "remote": "8.8.8.8", "port": 53,
            "protocol": "udp"} | members)


@pytest.fixture
def engine():
    return Engine()


@pytest.fixture
def session(engine):
    made = engine.connect()
    assert engine.error(made, "sublayer-add", key=KEY, name="a sublayer", description="d", flags=0, weight=65535) == 0
    return made


def test_sublayers(engine, session):
    assert engine.list("sublayers") == [
        {"key": KEY, "name": "a sublayer", "description": "d", "flags": 0, "weight": 65535, "session": 1}]
    again = {"key": KEY.lower(), "name": "again", "weight": 1}
    assert engine.error(session, "sublayer-add", **again) == codes.FWP_E_ALREADY_EXISTS
    assert engine.error(engine.connect(), "sublayer-add", **again) == codes.FWP_E_ALREADY_EXISTS
    assert engine.error(session, "sublayer-delete", key=OTHER_KEY) == codes.FWP_E_SUBLAYER_NOT_FOUND
    number = engine.ask(session, "filter-add", **FILTER)["id"]
    assert engine.error(session, "sublayer-delete", key=KEY) == codes.FWP_E_IN_USE
    assert engine.error(session, "filter-delete", id=number) == 0
    assert engine.error(session, "sublayer-delete", key=KEY) == 0
    assert engine.list("sublayers") == []


def test_filters_come_and_go(engine, session):
    assert [engine.ask(session, "filter-add", **FILTER) for _ in range(3)] == [
        {"error": 0, "id": number} for number in (1001, 1002, 1003)]
    assert engine.ask(session, "filter-get", id=1002) == {"error": 0, "id": 1002} | FILTER
    assert engine.error(session, "filter-delete", id=1002) == 0
    assert engine.error(session, "filter-get", id=1002) == codes.FWP_E_FILTER_NOT_FOUND
    assert engine.error(session, "filter-delete", id=1002) == codes.FWP_E_FILTER_NOT_FOUND
    assert engine.ask(session, "filter-add", **FILTER)["id"] == 1004
    assert [each["id"] for each in engine.list("filters")] == [1001, 1003, 1004]
    assert engine.enforced == [[1001], [1001, 1002], [1001, 1002, 1003], [1001, 1003], [1001, 1003, 1004]]


@pytest.mark.parametrize("change, code", (
    ({"sublayer": OTHER_KEY}, codes.FWP_E_SUBLAYER_NOT_FOUND),
    ({"layer": "connect-v5"}, codes.FWP_E_LAYER_NOT_FOUND),
    ({"name": ""}, codes.FWP_E_NULL_DISPLAY_NAME),
    ({"action": "callout"}, codes.FWP_E_INVALID_ACTION_TYPE),
    ({"weight": 16}, codes.FWP_E_INVALID_WEIGHT),
    ({"weight": -1}, codes.FWP_E_INVALID_WEIGHT),
    ({"conditions": [{"field": "local-port", "value": 53}]}, codes.FWP_E_CONDITION_NOT_FOUND),
    ({"conditions": [{"field": "remote-port", "value": "53"}]}, codes.FWP_E_TYPE_MISMATCH),
    ({"conditions": [{"field": "app-id", "value": 53}]}, codes.FWP_E_TYPE_MISMATCH),
    ({"sublayer": "A"}, codes.ERROR_INVALID_PARAMETER),
    ({"conditions": [7]}, codes.ERROR_INVALID_PARAMETER)))
def test_filters_that_windows_refuses(engine, session, change, code):
    assert engine.ask(session, "filter-add", **(FILTER | change)) == {"error": code}
    assert engine.list("filters") == [] and engine.enforced == []


@pytest.mark.parametrize("calls", (("close",), ()))
def test_what_a_dynamic_session_has_added_ends_with_it(engine, session, calls):
    stays = engine.connect(dynamic=False)
    assert engine.error(stays, "sublayer-add", key=OTHER_KEY, name="stays") == 0
    number = engine.ask(stays, "filter-add", **(FILTER | {"sublayer": OTHER_KEY}))["id"]
    # In each other's sublayers, too.
    engine.ask(session, "filter-add", **(FILTER | {"sublayer": OTHER_KEY}))
    engine.ask(stays, "filter-add", **FILTER)
    engine.ask(session, "filter-add", **FILTER)
    assert len(engine.list("filters")) == 4
    for call in calls:
        assert engine.error(session, call) == 0
    engine.end(session)
    assert [each["id"] for each in engine.list("filters")] == [number]
    assert [each["key"] for each in engine.list("sublayers")] == [OTHER_KEY]
    assert [each["id"] for each in engine.list("sessions")] == [2]
    assert engine.enforced[-1] == [number]
    engine.end(stays)
    assert [each["id"] for each in engine.list("filters")] == [number]
    assert engine.list("sessions") == []


def test_a_session_that_somebody_else_ends(engine, session):
    number = engine.ask(session, "filter-add", **FILTER)["id"]
    other = engine.connect()
    assert engine.error(other, "session-end", id=3) == codes.ERROR_INVALID_PARAMETER
    assert engine.error(other, "session-end", id=1) == 0
    assert [each["id"] for each in engine.list("sessions")] == [2]
    assert (engine.list("filters"), engine.list("sublayers"), engine.enforced[-1]) == ([], [], [])
    for call, members in (("filter-get", {"id": number}), ("filter-delete", {"id": number}), ("close", {})):
        assert engine.error(session, call, **members) == codes.ERROR_INVALID_HANDLE
    engine.end(session)
    assert [each["id"] for each in engine.list("sessions")] == [2]


def test_sessions_may_delete_what_others_have_added(engine, session):
    number = engine.ask(session, "filter-add", **FILTER)["id"]
    other = engine.connect()
    assert engine.ask(other, "filter-get", id=number)["name"] == "a filter"
    assert engine.error(other, "filter-delete", id=number) == 0
    assert engine.error(session, "filter-get", id=number) == codes.FWP_E_FILTER_NOT_FOUND


def test_calls_without_a_session(engine, session):
    number = engine.ask(session, "filter-add", **FILTER)["id"]
    closed = engine.connect()
    assert engine.error(closed, "close") == 0
    for call, members in (("sublayer-add", {"key": OTHER_KEY, "name": "n"}), ("sublayer-delete", {"key": KEY}),
                          ("filter-add", FILTER), ("filter-get", {"id": number}), ("filter-delete", {"id": number}),
                          ("close", {})):
        assert engine.error(closed, call, **members) == codes.ERROR_INVALID_HANDLE
    assert engine.error(session, "open") == codes.ERROR_INVALID_PARAMETER  # it has one
    assert len(engine.list("filters")) == 1


@pytest.mark.parametrize("request_", ({}, {"call": "other"}, {"call": ["open"]}, {"call": "sublayer-add"},
                                      {"call": "filter-get"}, {"call": "judge", "family": 5, "direction": "connect"}))
def test_what_is_no_call(engine, session, request_):
    call = request_.pop("call", None)
    assert engine.error(session, call, **request_) == codes.ERROR_INVALID_PARAMETER


def test_judges_by_the_interface_that_routes_give(engine, session):
    assert engine.judge() == {"error": 0, "passes": True, "interface": 2, "filter": None}
    engine.ask(session, "filter-add", **FILTER)
    permit = FILTER | {"weight": 11, "action": "permit", "conditions": [{"field": "interface-index", "value": 7}]}
    engine.ask(session, "filter-add", **permit)
    assert engine.judge() == {"error": 0, "passes": False, "interface": 2, "filter": 1001}
    assert engine.judge(remote="10.6.7.2") == {"error": 0, "passes": True, "interface": 7, "filter": 1002}
    assert engine.judge(interface=7) == {"error": 0, "passes": True, "interface": 7, "filter": 1002}
    for passing in ({"port": 80}, {"family": 6}, {"direction": "accept"}):
        assert engine.judge(**passing)["passes"]
