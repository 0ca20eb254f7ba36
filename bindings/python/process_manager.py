"""The process manager's agent for base services in Python.

    from process_manager import Agent, State

    with Agent() as agent:          # the name is the PROC_NAME that the service file sets
        agent.start_heartbeat()
        agent.report(State.READY, wait=60)
        ...

Needs the shared library libprocess_manager_agent.so.1 and nothing but the standard library. Waits are
in seconds. What fails raises AgentError, an OSError whose errno tells what it was and whose text is
the library's. Every method may be called from any thread. Callbacks come on a thread of the
library, one at a time; they must be short, and query, load and reload raise EDEADLK in them. What
a callback raises is printed and dropped.
"""
import ctypes
import errno
import weakref
from collections.abc import Callable, Iterable, Mapping, Sequence
from enum import IntEnum
from functools import partialmethod
from typing import Any, NamedTuple, Optional


class State(IntEnum):
    UP = 0  # The first two count from "iammgr" alone.
    REPORT_ALL = 1
    READY = 2
    GOING_DOWN = 3


class Status(IntEnum):
    THERE = 0
    GONE = 1
    STOPPED = 2


class Event(IntEnum):
    STARTED = 0
    RESTARTED = 1
    TERM_TIMEOUT = 2
    ENDED = 3
    FAILED = 4
    NOT_POSSIBLE = 5


class Change(NamedTuple):
    name: str
    pid: int
    gid: int
    event: int  # An Event, unless the manager is newer than this module.
    eio: bool  # Its program couldn't be read.


class AgentError(OSError):
    """What the library refused; errno says why."""


class _Change(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("pid", ctypes.c_int32), ("gid", ctypes.c_uint32),
                ("state", ctypes.c_uint32), ("eio", ctypes.c_uint32)]


class _Status(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("status", ctypes.c_int32), ("reserved", ctypes.c_uint32)]


_Told = ctypes.CFUNCTYPE(None, ctypes.c_void_p)
_Changes = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(_Change), ctypes.c_size_t)
_Statuses = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(_Status), ctypes.c_size_t)


class _Callbacks(ctypes.Structure):
    _fields_ = [("size", ctypes.c_size_t), ("context", ctypes.c_void_p), ("connected", _Told),
                ("disconnected", _Told), ("changes", _Changes), ("status", _Statuses)]


class _Start(ctypes.Structure):
    _fields_ = [("size", ctypes.c_size_t), ("name", ctypes.c_char_p),
                ("arguments", ctypes.POINTER(ctypes.c_char_p)), ("path", ctypes.c_char_p),
                ("vf", ctypes.c_char_p), ("environment", ctypes.POINTER(ctypes.c_char_p))]


class _Pair(ctypes.Structure):
    _fields_ = [("key", ctypes.c_char_p), ("value", ctypes.c_char_p)]


_library = ctypes.CDLL("libprocess_manager_agent.so.1")
_library.pm_agent_error_text.restype = ctypes.c_char_p
_library.pm_agent_version.restype = ctypes.c_char_p
_library.pm_agent_name.restype = ctypes.c_char_p
_library.pm_agent_destroy.restype = None
_library.pm_agent_stop_heartbeat.restype = None


def version() -> str:
    """The version of the shared library."""
    return _library.pm_agent_version().decode()


def _check(result: int) -> None:
    if result != 0:
        raise AgentError(-result, _library.pm_agent_error_text(result).decode())


def _bytes(text: Optional[str]) -> Optional[bytes]:
    if text is not None and "\0" in text:  # The library would see the part in front of it.
        raise AgentError(errno.EINVAL, "a zero byte in a text")
    return None if text is None else text.encode(errors="surrogateescape")


def _text(name: bytes) -> str:
    return name.decode(errors="surrogateescape")


def _texts(texts: Iterable[str]) -> Any:
    encoded = [_bytes(text) for text in texts]
    return (ctypes.c_char_p * (len(encoded) + 1))(*encoded)


def _ms(seconds: float) -> ctypes.c_int64:
    return ctypes.c_int64(int(min(max(seconds, 0), 1e9) * 1000))


class Agent:
    """Serves a service's name, so that the manager opens its channel, until close()."""

    def __init__(self, name: Optional[str] = None, *,
                 on_connected: Optional[Callable[[], None]] = None,
                 on_disconnected: Optional[Callable[[], None]] = None,
                 on_changes: Optional[Callable[[list[Change]], None]] = None,
                 on_status: Optional[Callable[[dict[str, int]], None]] = None) -> None:
        def changes(_: Any, rows: Any, count: int) -> None:
            on_changes([Change(_text(row.name), row.pid, row.gid, row.state, row.eio != 0)
                        for row in rows[:count]])

        def status(_: Any, rows: Any, count: int) -> None:
            on_status({_text(row.name): row.status for row in rows[:count]})

        callbacks = _Callbacks(
            size=ctypes.sizeof(_Callbacks),
            connected=_Told(lambda _: on_connected()) if on_connected else _Told(),
            disconnected=_Told(lambda _: on_disconnected()) if on_disconnected else _Told(),
            changes=_Changes(changes) if on_changes else _Changes(),
            status=_Statuses(status) if on_status else _Statuses())
        handle = ctypes.c_void_p()
        _check(_library.pm_agent_create(_bytes(name), ctypes.byref(callbacks), ctypes.byref(handle)))
        self._handle = handle
        # They live as long as the library may call them, and as long as one that closes it runs.
        self._callbacks = callbacks
        # At the end of the interpreter at the latest, while callbacks can still run.
        self._close = weakref.finalize(self, lambda _: _library.pm_agent_destroy(handle), callbacks)

    def __enter__(self) -> "Agent":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends the service of the name. Afterwards no callback comes any more, and no other call works."""
        self._close()

    def _call(self, function: str, *arguments: Any) -> None:
        if not self._close.alive:
            raise AgentError(errno.ESHUTDOWN, "the agent has been closed")
        _check(getattr(_library, function)(self._handle, *arguments))

    @property
    def name(self) -> str:
        return _text(_library.pm_agent_name(self._handle)) if self._close.alive else ""

    @property
    def connected(self) -> bool:
        return self._close.alive and _library.pm_agent_is_connected(self._handle) == 1

    def wait_connected(self, limit: float) -> None:
        self._call("pm_agent_wait_connected", _ms(limit))

    def report(self, state: State, wait: float = 0) -> None:
        self._call("pm_agent_report_state", ctypes.c_int(state), _ms(wait))

    def beat(self) -> None:
        self._call("pm_agent_beat")

    def send_heart_message(self) -> None:
        self._call("pm_agent_send_heart_message")

    def start_heartbeat(self, period: float = 0.5, *, beats: bool = True,
                        heart_messages: bool = True) -> None:
        self._call("pm_agent_start_heartbeat", _ms(period),
                   ctypes.c_uint32(beats + 2 * heart_messages))

    def stop_heartbeat(self) -> None:
        if self._close.alive:
            _library.pm_agent_stop_heartbeat(self._handle)

    def _start(self, function: str, name: str, arguments: Sequence[str] = (), *,
               path: Optional[str] = None, vf: Optional[str] = None,
               environment: Optional[Mapping[str, str]] = None, wait: float = 0) -> None:
        entries = [f"{key}={value}" for key, value in (environment or {}).items()]
        record = _Start(ctypes.sizeof(_Start), _bytes(name), _texts(arguments), _bytes(path),
                        _bytes(vf), _texts(entries))
        self._call(function, ctypes.byref(record), ctypes.c_size_t(1), _ms(wait))

    # Ask for an application; what becomes of it comes to on_changes.
    start = partialmethod(_start, "pm_agent_start_apps")
    restart = partialmethod(_start, "pm_agent_restart_apps")

    def terminate(self, names: Sequence[str], wait: float = 0) -> None:
        self._call("pm_agent_term_apps", _texts(names), ctypes.c_size_t(len(names)), _ms(wait))

    def report_execution(self, name: str, pid: int, gid: int, running: bool, wait: float = 0) -> None:
        """Tells of a process outside the manager's care; for the service "ventrix"."""
        self._call("pm_agent_report_execution", _bytes(name), ctypes.c_int32(pid),
                   ctypes.c_uint32(gid), ctypes.c_int(running), _ms(wait))

    def request_status(self, names: Sequence[str], wait: float = 0) -> None:
        """Has the answer come to on_status."""
        self._call("pm_agent_request_status", _texts(names), ctypes.c_size_t(len(names)), _ms(wait))

    def query(self, names: Sequence[str], limit: float) -> dict[str, Status]:
        """Asks whether applications are there, and waits for the answer."""
        found = (ctypes.c_int32 * len(names))()
        self._call("pm_agent_query_status", _texts(names), ctypes.c_size_t(len(names)), _ms(limit),
                   found)
        return {name: Status(value) for name, value in zip(names, found)}

    def _load(self, function: str, match: Mapping[str, str], limit: float) -> None:
        pairs = (_Pair * len(match))(*[_Pair(_bytes(k), _bytes(v)) for k, v in match.items()])
        self._call(function, pairs, ctypes.c_size_t(len(match)), _ms(limit), None)

    # Have the manager read this service's start-up file with this match data, and wait for its answer.
    load = partialmethod(_load, "pm_agent_load_startup_cfg")
    reload = partialmethod(_load, "pm_agent_reload_startup_cfg")
