"""The Windows machine of the end-to-end tests: Wine's service manager, the real service, clients, namespaces."""

from .machine import Bench
from .client import Client
from .waiting import wait_for

__all__ = ["Bench", "Client", "wait_for"]
