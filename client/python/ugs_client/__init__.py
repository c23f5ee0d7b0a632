"""Reports to a KorvaneUGS server what one video-analytics instance is using.

    with ugs_client.Client("10.0.0.5", "public.pem") as client:
        print(client.report("hall-7", ["rtsp://10.0.0.9/1"], {"MaxCameras": 4}))

Or let a Reporter do it over and over.

All the work is done by the C library (ugs_client.h, ugs_client(3)), and so are the texts of the exceptions. Durations
are in seconds. All objects may be shared by threads. Neither clients nor reporters survive a fork: make them afterwards.
In the child their calls raise BadUsage, and close() returns at once.
"""

from __future__ import annotations

import atexit
import ctypes
import itertools
import logging
import math
import operator
import os
import signal
import threading
import weakref
from concurrent.futures import Future
from dataclasses import dataclass
from datetime import datetime, timezone
from typing import Callable, Iterable, Mapping

from ._library import Counters as _Counters
from ._library import Listener as _Listener
from ._library import library as _c

__all__ = [
    *("Client", "Reporter", "Outcome", "Counters", "version"),
    *("UgsError", "NoSuchHost", "NotConnected", "NoAnswer", "Refused", "CannotSeal", "BadUsage"),
]

_log = logging.getLogger(__name__)
_REFUSED, _LONG = 2, 2**63


class UgsError(Exception):
    """Why something was not counted. Its text is for people."""


class NoSuchHost(UgsError):
    """The server's name does not resolve, or the resolver does not answer."""


class NotConnected(UgsError):
    """Nobody accepts a connection, or descriptors or memory are lacking for one."""


class NoAnswer(UgsError):
    """The request was sent, and no answer came in time or before the connection was lost."""


class Refused(UgsError):
    """The server answered, but did not count; its log says why."""


class CannotSeal(UgsError):
    """The key cannot encrypt."""


class BadUsage(UgsError, ValueError):
    """An argument is wrong, or what was to be reported cannot be."""


_KINDS = (None, NoSuchHost, NotConnected, NoAnswer, Refused, CannotSeal, BadUsage)  # in the order of ugs_error


@dataclass(frozen=True)
class Outcome:
    """How one report of a Reporter ended."""

    code: int | None
    """The server's: 0 counted, 2 refused; None without an answer."""
    error: UgsError | None
    """Why it was not counted."""

    @property
    def text(self) -> str:
        """The error's text; empty without one."""
        return str(self.error or "")


@dataclass(frozen=True)
class Counters:
    """What happened since a client or reporter was made."""

    sent: int
    """Requests of any kind."""
    counted: int
    refused: int
    unanswered: int
    """Sent, and not answered."""
    reconnects: int
    """Connections made after the first."""
    last_counted: datetime | None
    """When a report was last counted, in UTC, to the second."""


def version() -> str:
    """The version of the C library's interface, as "1.0"."""
    return str(_c.ugs_version(), "ascii")


def _error(kind: int, text: bytes) -> UgsError | None:
    made = _KINDS[kind] if kind < len(_KINDS) else UgsError
    return made(text.decode("utf-8", "replace")) if made else None


def _last_error(client: int | None = None) -> UgsError:
    return _error(_c.ugs_last_error(client), _c.ugs_last_error_text(client)) or UgsError("it failed without a reason")


def _bytes(text: str, what: str) -> bytes:
    """As the C library takes texts; it refuses what is not UTF-8, but would not see what follows a NUL."""
    if not isinstance(text, str):
        raise TypeError(f"{what} must be a str, not {type(text).__name__}")
    if "\0" in text:
        raise BadUsage(f"{what} holds a NUL byte")
    return text.encode("utf-8", "surrogatepass")


def _milliseconds(seconds: float, what: str) -> int:
    if not seconds > 0:
        raise BadUsage(f"a {what} of {seconds} s is not positive")
    return math.ceil(min(seconds, 1e9) * 1000)  # decades: for ever, and no overflow


def _destination(server: str, key: str | os.PathLike[str], timeout: float | None) -> tuple[bytes, bytes, int]:
    if not isinstance(key, str):
        key = os.fsdecode(key)
    if "\0" in key:
        raise BadUsage("the key holds a NUL byte")
    return _bytes(server, "server"), os.fsencode(key), -1 if timeout is None else _milliseconds(timeout, "time-out")


class _Usage:
    """What one instance is using, as the C library keeps it. A call that fails is remembered there until the report."""

    handle: int | None = None

    def __init__(self, identity: str, cameras: Iterable[str], counts: Mapping[str, int], container: str, layout: str):
        if isinstance(cameras, (str, bytes)):
            raise TypeError("cameras must be several strings, not one")
        self.handle = _c.ugs_usage_new(_bytes(identity, "KorvaneID"))
        _c.ugs_usage_set_layout(self.handle, _bytes(layout, "layout"))
        _c.ugs_usage_set_container(self.handle, _bytes(container, "DockerID"))
        for camera in cameras:
            _c.ugs_usage_add_camera(self.handle, _bytes(camera, "CamRtspUrls"))
        for name, count in counts.items():
            count = operator.index(count)
            if not -_LONG <= count < _LONG:
                raise BadUsage(f"count {name} is {count}, not from 0 to 4294967295")
            _c.ugs_usage_set_count(self.handle, _bytes(name, "a count's name"), count)

    def __del__(self, free: Callable[[int | None], None] = _c.ugs_usage_free) -> None:
        free(self.handle)


class _Owner:
    """Owns a handle of the C library, which takes one waiting call at a time, and must not be freed during any."""

    _what: str
    _interrupt_c: Callable[[int], None]
    _free_c: Callable[[int], None]
    _get_counters_c: Callable[..., int]
    _handle: int | None = None
    _closed = False

    def __init__(self) -> None:
        self._renew_locks()
        _owners.add(self)

    def _renew_locks(self) -> None:
        self._life = threading.RLock()  # guards _handle and _closed; held for calls that do not wait
        self._turn = threading.Lock()  # held for a call that waits, and while the handle is freed

    def _open_handle(self) -> int:
        with self._life:
            if self._closed or self._handle is None:
                raise BadUsage(f"the {self._what} is closed")
            return self._handle

    def _wait_for(self, ask: Callable[[int], int]) -> int:
        """Makes a call that waits. The main thread has another one make it, so that signals still reach Python."""
        given_up = False

        def take_turn() -> int:
            try:
                with self._turn:
                    return -1 if given_up else ask(self._open_handle())
            finally:
                self._free_if_closed()

        if threading.current_thread() is not threading.main_thread():
            return take_turn()
        ended: Future[int] = Future()
        thread = threading.Thread(target=_settle, args=(ended, take_turn), name="ugs_client", daemon=True)
        try:
            try:
                thread.start()
            except RuntimeError:  # the interpreter is exiting, or threads are lacking
                return take_turn()
            return ended.result()
        except BaseException:
            given_up = True
            if thread.ident is not None and not ended.done():  # this is what a signal's handler raised
                self._interrupt()
                ended.exception()  # when there is one
            raise

    def _interrupt(self) -> None:
        with self._life:
            if not self._closed and self._handle is not None:
                self._interrupt_c(self._handle)

    def counters(self) -> Counters:
        """What happened since this was made."""
        found = _Counters()
        with self._life:
            if self._get_counters_c(self._open_handle(), ctypes.byref(found)) != 0:
                raise _last_error()
        last = datetime.fromtimestamp(found.last_counted, timezone.utc) if found.last_counted else None
        return Counters(found.sent, found.counted, found.refused, found.unanswered, found.reconnects, last)

    def _close(self) -> None:
        with self._life:
            self._interrupt()
            self._closed = True
        self._free_if_closed()

    def _free_if_closed(self) -> None:
        """Whoever is last: a call in flight frees the handle when it has ended."""
        if not self._closed or not self._turn.acquire(blocking=False):
            return
        try:
            handle, self._handle = self._handle, None
            if handle is not None:
                self._free_c(handle)
        finally:
            self._turn.release()


def _settle(ended: Future[int], call: Callable[[], int]) -> None:
    signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())  # they are for the thread that waits
    try:
        ended.set_result(call())
    except BaseException as error:
        ended.set_exception(error)


_owners: weakref.WeakSet[_Owner] = weakref.WeakSet()


def _after_fork() -> None:
    """Locks that another thread of the parent held would never be released."""
    for owner in list(_owners):
        owner._renew_locks()


os.register_at_fork(after_in_child=_after_fork)


class Client(_Owner):
    """One instance's connection to the server, made in the background, and again whenever it is lost.

    Requests of several threads are sent one after the other. Ctrl-C, or whatever a signal's handler raises, ends a call
    that waits.
    """

    _what = "client"
    _interrupt_c, _free_c, _get_counters_c = _c.ugs_interrupt, _c.ugs_close, _c.ugs_get_counters

    def __init__(self, server: str, key: str | os.PathLike[str], timeout: float | None = 30.0):
        """Does not wait.

        server -- HOST or HOST:PORT (port 9304 by default)
        key -- the server's public RSA key: PEM text, or the name of a file that holds it, which is read again after a
            refusal
        timeout -- how long a call waits for its answer, in seconds; None means for ever

        Raises BadUsage for arguments that cannot be used, NotConnected without free descriptors.
        """
        super().__init__()
        self._handle = _c.ugs_open(*_destination(server, key, timeout))
        if self._handle is None:
            raise _last_error()

    def _ask(self, function: Callable[..., int], *arguments: object) -> int:
        def ask(handle: int) -> int:
            code = function(handle, *arguments)
            if code in (-1, _REFUSED):
                raise _last_error(handle)
            return code

        return self._wait_for(ask)

    def greet(self) -> int:
        """Returns 1 if the server is there and has our key. Raises UgsError otherwise."""
        return self._ask(_c.ugs_greet)

    def report(
        self,
        identity: str,
        cameras: Iterable[str],
        counts: Mapping[str, int],
        container: str = "",
        layout: str = "v6",
    ) -> int:
        """Reports once. Returns the server's reply code, 0: counted. Raises UgsError otherwise.

        identity -- not empty; with the cameras, in order, it is by what the server knows the instance
        cameras -- URLs, at least one
        counts -- by JSON key, as "MaxCameras", each from 0 to 4294967295; those left out are 0
        container -- information only
        layout -- "legacy", "v4", "v5" or "v6"
        """
        usage = _Usage(identity, cameras, counts, container, layout)
        return self._ask(_c.ugs_report, usage.handle)

    def sign_off(self, identity: str, cameras: Iterable[str], container: str = "", layout: str = "v6") -> int:
        """Reports that the instance has ended: all counts 0, so that the server's sums fall now, not after 120 s."""
        usage = _Usage(identity, cameras, {}, container, layout)
        return self._ask(_c.ugs_sign_off, usage.handle)

    def send_document(self, document: str | bytes) -> int:
        """Seals and sends a document as it is, whatever it holds. Returns and raises as report() does."""
        data = document.encode() if isinstance(document, str) else bytes(document)
        return self._ask(_c.ugs_send_document, data, len(data))

    def send_sealed(self, payload: str | bytes) -> int:
        """Sends what was sealed elsewhere. Returns and raises as report() does."""
        data = payload.encode() if isinstance(payload, str) else bytes(payload)
        return self._ask(_c.ugs_send_sealed, data, len(data))

    def interrupt(self) -> None:
        """Makes the call that is waiting in another thread, or else the next one, raise at once."""
        self._interrupt()

    def close(self) -> None:
        """Does not wait. A call that is waiting in another thread raises at once, and calls raise BadUsage from now on."""
        self._close()

    def __enter__(self) -> Client:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        if self._handle is not None:
            self._close()


class Reporter(_Owner):
    """Reports once a period, on a thread of its own, until it is closed or the interpreter exits.

    The first report comes at a random moment of the first period. After a request without an answer comes another, fresh
    one, after a random pause. The server forgets an instance after 120 s; with a period from 10 to 75 s and a time-out of
    30 s one lost report never costs the instance.
    """

    _what = "reporter"
    _interrupt_c, _free_c = _c.ugs_reporter_interrupt, _c.ugs_reporter_stop
    _get_counters_c = _c.ugs_reporter_get_counters
    _listening: int | None = None

    def __init__(
        self,
        server: str,
        key: str | os.PathLike[str],
        identity: str,
        cameras: Iterable[str],
        counts: Mapping[str, int],
        container: str = "",
        layout: str = "v6",
        *,
        period: float = 30.0,
        timeout: float | None = 30.0,
        listener: Callable[[Outcome], object] | None = None,
    ):
        """server, key and timeout are as for Client; identity to layout as for Client.report().

        period -- from 1 to 118 seconds
        listener -- hears how each report ended, on the reporter's thread. It may call anything of its reporter but
            sign_off(). What it raises is logged. Without one, failures are logged as warnings. In the child of a fork
            that lives for a second it hears that nothing is reported there.

        Raises as Client does; BadUsage also for a period or a usage that cannot be reported.
        """
        super().__init__()
        self._listener = listener
        self._cameras, self._counts = tuple(cameras) if not isinstance(cameras, str) else cameras, dict(counts)
        self._identity, self._container, self._layout = identity, container, layout
        usage = self._usage()
        destination = _destination(server, key, timeout)
        period_ms = _milliseconds(period, "period")
        self._number = next(_numbers)
        with self._life:  # the listener may be called before the handle is known
            _running[self._number] = self
            self._handle = _c.ugs_reporter_start(
                *destination[:2], usage.handle, period_ms, destination[2], _heard, self._number
            )
            if self._handle is None:
                del _running[self._number]
                raise _last_error()

    def _usage(self) -> _Usage:
        return _Usage(self._identity, self._cameras, self._counts, self._container, self._layout)

    def update(
        self,
        counts: Mapping[str, int] | None = None,
        *,
        cameras: Iterable[str] | None = None,
        container: str | None = None,
    ) -> None:
        """Changes what is reported, and reports it at once. What is left out stays as it was. Does not wait.

        counts -- all of them: those left out of it are 0

        Raises BadUsage for what cannot be reported; then nothing changes.
        """
        if isinstance(cameras, str):
            raise TypeError("cameras must be several strings, not one")
        with self._life:
            before = self._counts, self._cameras, self._container
            self._counts = self._counts if counts is None else dict(counts)
            self._cameras = self._cameras if cameras is None else tuple(cameras)
            self._container = self._container if container is None else container
            try:
                usage = self._usage()
                if _c.ugs_reporter_update(self._open_handle(), usage.handle) != 0:
                    raise _last_error()
            except BaseException:
                self._counts, self._cameras, self._container = before
                raise

    def report_now(self) -> None:
        """Reports at once; the period begins anew. Does not wait."""
        self.update()

    def sign_off(self) -> int:
        """Sends a last report with all counts 0, so that the server's sums fall now, and ends the reporting.

        Waits for its answer, and before that for a report in flight, each for the time-out at most. Returns 0: counted.
        Raises UgsError otherwise. Ctrl-C ends the wait, and the reporting. close() is still to be called.
        """

        def ask(handle: int) -> int:
            code: int = _c.ugs_reporter_sign_off(handle)
            if code in (-1, _REFUSED):
                raise _last_error()
            return code

        if self._listening == threading.get_ident():
            return ask(self._open_handle())  # is refused; a turn would be waited for without end
        return self._wait_for(ask)

    def close(self) -> None:
        """Ends the reporting without signing off. Gives up a report in flight, and does not wait for the network.

        When it has returned, the listener is not called any more; it waits for one that is being called, unless that
        one called it.
        """
        self._close()

    def __enter__(self) -> Reporter:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def _hear(self, code: int, kind: int, text: bytes) -> None:
        if self._closed:
            return
        outcome = Outcome(None if code == -1 else code, _error(kind, text))
        self._listening = threading.get_ident()
        try:
            if self._listener is not None:
                self._listener(outcome)
            elif outcome.error is not None:
                _log.warning("%s", outcome.text)
        except BaseException:
            _log.exception("the listener failed")
        finally:
            self._listening = None

    def _free_if_closed(self) -> None:
        if self._listening != threading.get_ident():
            super()._free_if_closed()
        elif self._closed:
            # The reporter's thread cannot wait for its own end, and must have ended when the interpreter does.
            try:
                threading.Thread(target=super()._free_if_closed, name="ugs_client", daemon=False).start()
            except RuntimeError:
                return  # the interpreter is exiting: _close_all follows
        if self._handle is None:
            _running.pop(self._number, None)


_running: dict[int, Reporter] = {}  # by the context of their callbacks; nobody else may hold them
_numbers = itertools.count(1)


def _dispatch(context: int, code: int, kind: int, text: bytes) -> None:
    reporter = _running.get(context)
    if reporter is not None:
        reporter._hear(code, kind, text)


_heard = _Listener(_dispatch)  # one for all, never freed: a callback may still be on its way back to C


def _close_all() -> None:
    """A reporter's thread that called into an interpreter which is gone would crash."""
    for reporter in list(_running.values()):
        reporter.close()
        with reporter._turn:
            pass  # a thread that is freeing it, or was signing it off
        reporter._free_if_closed()


atexit.register(_close_all)
