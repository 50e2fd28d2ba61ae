"""The Windows machine of the end-to-end tests: Wine's service manager, the real service, clients, namespaces."""

from .client import Client
from .machine import Bench, volume
from .waiting import wait_for

__all__ = ["Bench", "Client", "volume", "wait_for"]
