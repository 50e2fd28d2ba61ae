"""What the engine answers to a request, a JSON object; and what a connection's end means."""

from dataclasses import asdict

from . import codes
from .arbitration import Traffic, judge
from .codes import Failure


class Calls:
    """One engine. `enforce` is called with all filters after each change, before the change is answered.

    `interface_to` as Routes.interface_to; `changes` tells what enforcing has taken so far.
    """

    def __init__(self, objects, enforce, interface_to, changes=()):
        self.objects = objects
        self._enforce = enforce
        self._interface_to = interface_to
        self._changes = changes

    def answer(self, connection, request):
        """The reply to a request of a connection, an object whose attribute `session` is kept here."""
        try:
            call = self._CALLS.get(request.get("call"))
            if call is None:
                raise Failure(codes.ERROR_INVALID_PARAMETER)
            return {"error": codes.SUCCESS} | (call(self, connection, request) or {})
        except Failure as failure:
            return {"error": failure.code}
        except (KeyError, TypeError, ValueError, AttributeError, OSError):
            return {"error": codes.ERROR_INVALID_PARAMETER}

    def end(self, connection):
        """The connection is closed or its process is gone."""
        if connection.session in self.objects.sessions:
            self._end(connection.session)
        connection.session = None

    def _end(self, session):
        self.objects.close(session)
        self._enforce_all()

    def _enforce_all(self):
        self._enforce(list(self.objects.filters.values()))

    def _session(self, connection):
        # It may have been ended by another connection.
        if connection.session not in self.objects.sessions:
            raise Failure(codes.ERROR_INVALID_HANDLE)
        return connection.session

    def _open(self, connection, request):
        if connection.session:
            raise Failure(codes.ERROR_INVALID_PARAMETER)
        connection.session = self.objects.open(
            request.get("name", ""), request.get("description", ""), request.get("dynamic", False))

    def _close(self, connection, _):
        self._session(connection)
        self.end(connection)

    def _end_other(self, _, request):
        for session in self.objects.sessions:
            if session.id == request["id"]:
                return self._end(session)
        raise Failure(codes.ERROR_INVALID_PARAMETER)

    def _add_sublayer(self, connection, request):
        self.objects.add_sublayer(self._session(connection), request["key"], request["name"],
                                  request.get("description", ""), request.get("flags", 0), request.get("weight", 0))

    def _delete_sublayer(self, connection, request):
        self._session(connection)
        self.objects.delete_sublayer(request["key"])

    def _add_filter(self, connection, request):
        made = self.objects.add_filter(self._session(connection), request)
        self._enforce_all()
        return {"id": made.id}

    def _get_filter(self, connection, request):
        self._session(connection)
        return _described(self.objects.filter(request["id"]))

    def _delete_filter(self, connection, request):
        self._session(connection)
        self.objects.delete_filter(request["id"])
        self._enforce_all()

    def _judge(self, _, request):
        family, direction = request["family"], request["direction"]
        interface = request.get("interface")
        if interface is None:
            interface = self._interface_to(family, request["remote"], request["local"])
        if family not in (4, 6) or direction not in ("connect", "accept"):
            raise Failure(codes.ERROR_INVALID_PARAMETER)
        traffic = Traffic(f"{direction}-v{family}", request["program"], interface, request["port"])
        verdict = judge(self.objects.filters.values(), traffic)
        return {"passes": verdict.passes, "interface": interface,
                "filter": verdict.filter.id if verdict.filter else None}

    def _list(self, *_):
        objects = self.objects
        return {
            "sessions": [asdict(session) for session in objects.sessions],
            "sublayers": [asdict(each) | {"session": objects.owner(each.key).id} for each in objects.sublayers.values()],
            "filters": [_described(each) | {"session": objects.owner(each.id).id} for each in objects.filters.values()],
        }

    def _list_changes(self, *_):
        return {"changes": [change._asdict() for change in self._changes]}

    _CALLS = {
        "open": _open, "close": _close, "session-end": _end_other, "sublayer-add": _add_sublayer,
        "sublayer-delete": _delete_sublayer, "filter-add": _add_filter, "filter-get": _get_filter,
        "filter-delete": _delete_filter, "judge": _judge, "list": _list, "changes": _list_changes,
    }


def _described(rule):
    return asdict(rule) | {"conditions": [condition._asdict() for condition in rule.conditions]}
