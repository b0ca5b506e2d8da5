"""The errors of the library and of the service as exceptions."""

from typing import Any, Dict, Tuple, Type


class KelmError(Exception):
    """A call failed. The text tells the cause and what to do, as kelm_last_error() does in C."""

    def __init__(self, code: int, name: str, text: str) -> None:
        super().__init__(text)
        self.code = code  # below 0 the service's, above 0 one of enum kelm_error
        self.name = name  # "KELM_TIMEOUT", "KELM_ERROR_TOO_MANY_TASK" and so on

    def __str__(self) -> str:
        return str(self.args[0])

    def __reduce__(self) -> Tuple[Any, ...]:
        return type(self), (self.code, self.name, self.args[0])


class KelmServiceError(KelmError):
    """The service answered with an error of its own; `code` is below 0."""


class KelmTimeoutError(KelmError, TimeoutError):
    """No answer before the deadline; an inference may still run."""


class KelmConnectionLostError(KelmError, ConnectionError):
    """The service went away while the call was on its way."""


class KelmNotConnectedError(KelmError, ConnectionError):
    """There is no connection now."""


class KelmCanceledError(KelmError):
    """The task was taken back before it ran."""


class KelmSystemError(KelmError, OSError):
    """The operating system refused something."""


class KelmBusyError(KelmError):
    """A slot, or every slot of a pool, belongs to tasks that run."""


class KelmExpiredError(KelmError, TimeoutError):
    """The deadline passed before the task was sent; it did not run."""


class KelmInvalidArgumentError(KelmError, ValueError):
    """A mistake of the caller; nothing was done."""


class KelmOutOfMemoryError(KelmError, MemoryError):
    """There is no memory left for the call."""


class KelmLibraryError(ImportError):
    """libkelm.so.1 is missing, or is of another major version."""


TIMEOUT, NOT_CONNECTED, SYSTEM_ERROR, BUSY, EXPIRED, INVALID_ARGUMENT = 1, 3, 5, 6, 7, 8
# By code, as in enum kelm_error.
CLASSES: Dict[int, Type[KelmError]] = {
    TIMEOUT: KelmTimeoutError,
    2: KelmConnectionLostError,
    NOT_CONNECTED: KelmNotConnectedError,
    4: KelmCanceledError,
    SYSTEM_ERROR: KelmSystemError,
    BUSY: KelmBusyError,
    EXPIRED: KelmExpiredError,
    INVALID_ARGUMENT: KelmInvalidArgumentError,
    9: KelmOutOfMemoryError,
}


def invalid(text: str) -> KelmInvalidArgumentError:
    return KelmInvalidArgumentError(INVALID_ARGUMENT, "KELM_INVALID_ARGUMENT", text)


def busy(text: str) -> KelmBusyError:
    return KelmBusyError(BUSY, "KELM_BUSY", text)


def expired(text: str) -> KelmExpiredError:
    return KelmExpiredError(EXPIRED, "KELM_EXPIRED", text)


def closed(what: str) -> KelmNotConnectedError:
    return KelmNotConnectedError(
        NOT_CONNECTED, "KELM_NOT_CONNECTED", f"the {what} was closed; open it again"
    )


def class_of(code: int) -> Type[KelmError]:
    if code < 0:
        return KelmServiceError
    return CLASSES.get(code, KelmError)
