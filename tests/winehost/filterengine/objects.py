"""Sessions, sublayers and filters: what exists, who may add it, and what goes with whom."""

import itertools
import uuid
from dataclasses import dataclass

from . import codes
from .arbitration import ACTIONS, FIELDS, LAYERS, Condition, Filter
from .codes import Failure

HEAVIEST = 15
FIRST_FILTER_ID = 1001


@dataclass(eq=False)
class Session:
    """An engine that somebody has opened. What a dynamic one has added goes with it."""

    id: int
    name: str
    description: str
    dynamic: bool


@dataclass(frozen=True)
class Sublayer:
    """A group of filters that decides for itself."""

    key: str
    name: str
    description: str
    flags: int
    weight: int


class Objects:
    """All that exists. Every session may delete everything, as administrators may. Failures are codes.Failure."""

    def __init__(self):
        self.sessions = []
        self.sublayers = {}  # by key, in order of addition
        self.filters = {}  # by id, likewise
        self._owners = {}  # the session that has added a sublayer (by key) or a filter (by id)
        self._session_numbers = itertools.count(1)
        self._filter_ids = itertools.count(FIRST_FILTER_ID)

    def open(self, name="", description="", dynamic=False):
        session = Session(next(self._session_numbers), name, description, bool(dynamic))
        self.sessions.append(session)
        return session

    def close(self, session):
        """Ends a session; with a dynamic one goes what it has added, and filters of others in its sublayers."""
        self.sessions.remove(session)
        if not session.dynamic:
            return
        gone = {key for key in self.sublayers if self._owners[key] is session}
        for rule in list(self.filters.values()):
            if self._owners[rule.id] is session or rule.sublayer in gone:
                self.delete_filter(rule.id)
        for key in gone:
            self.delete_sublayer(key)

    def add_sublayer(self, session, key, name, description="", flags=0, weight=0):
        key = _canonical_key(key)
        if not name:
            raise Failure(codes.FWP_E_NULL_DISPLAY_NAME)
        if key in self.sublayers:
            raise Failure(codes.FWP_E_ALREADY_EXISTS)
        self.sublayers[key] = Sublayer(key, name, description, flags, weight)
        self._owners[key] = session

    def delete_sublayer(self, key):
        key = _canonical_key(key)
        if key not in self.sublayers:
            raise Failure(codes.FWP_E_SUBLAYER_NOT_FOUND)
        if any(rule.sublayer == key for rule in self.filters.values()):
            raise Failure(codes.FWP_E_IN_USE)
        del self.sublayers[key], self._owners[key]

    def add_filter(self, session, fields):
        """Adds the filter that `fields` describes (the members of Filter but for its id); returns it."""
        key = _canonical_key(fields["sublayer"])
        conditions = tuple(Condition(each["field"], each["value"]) for each in fields.get("conditions", ()))
        _check_filter(fields, conditions)
        if key not in self.sublayers:
            raise Failure(codes.FWP_E_SUBLAYER_NOT_FOUND)
        made = Filter(next(self._filter_ids), fields["layer"], key, fields["name"], fields.get("description", ""),
                      fields.get("flags", 0), fields["weight"], fields["action"], conditions)
        self.filters[made.id] = made
        self._owners[made.id] = session
        return made

    def filter(self, number):
        if number not in self.filters:
            raise Failure(codes.FWP_E_FILTER_NOT_FOUND)
        return self.filters[number]

    def delete_filter(self, number):
        del self.filters[self.filter(number).id], self._owners[number]

    def owner(self, identity):
        """The session that has added a filter (by its id) or a sublayer (by its key)."""
        return self._owners[identity]


def _canonical_key(key):
    try:
        return "{" + str(uuid.UUID(key)).upper() + "}"
    except (ValueError, AttributeError, TypeError):
        raise Failure(codes.ERROR_INVALID_PARAMETER) from None


def _check_filter(fields, conditions):
    if not fields["name"]:
        raise Failure(codes.FWP_E_NULL_DISPLAY_NAME)
    if fields["layer"] not in LAYERS:
        raise Failure(codes.FWP_E_LAYER_NOT_FOUND)
    if fields["action"] not in ACTIONS:
        raise Failure(codes.FWP_E_INVALID_ACTION_TYPE)
    if not isinstance(fields["weight"], int) or not 0 <= fields["weight"] <= HEAVIEST:
        raise Failure(codes.FWP_E_INVALID_WEIGHT)
    for condition in conditions:
        if condition.field not in FIELDS:
            raise Failure(codes.FWP_E_CONDITION_NOT_FOUND)
        if not isinstance(condition.value, FIELDS[condition.field]):
            raise Failure(codes.FWP_E_TYPE_MISMATCH)
