"""The orders of threads that a usual run does not meet."""

from host import Campaign


def races(campaign: Campaign) -> None:
    raise NotImplementedError
