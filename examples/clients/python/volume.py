#!/usr/bin/python3
"""volume.py [VALUE]: prints the volume of a device whenever it changes; with a value, sets it first.

Needs python3-dasbus, which asks the service for its interface.
"""

import argparse
import sys

from dasbus.connection import SystemMessageBus
from dasbus.error import DBusError
from dasbus.loop import EventLoop
from dasbus.typing import Int64, get_native, get_variant

SERVICE = "org.tulo.ConfigurationManager1"
OBJECT = "/org/tulo/ConfigurationManager1"
VOLUME = "/settings/audio/volume"


def show(path, value):
    if path == VOLUME:
        print("volume", get_native(value), flush=True)


def change(settings, value):
    """What the settings made of a change is in the outcome."""
    try:
        _, outcome = settings.SetValue(VOLUME, get_variant(Int64, value), {})
    except DBusError as error:
        print("not changed:", error, file=sys.stderr, flush=True)
        return
    outcome = get_native(outcome)
    if outcome.get("adjusted"):
        print("adjusted:", outcome["reason"], file=sys.stderr, flush=True)


def main():
    parser = argparse.ArgumentParser(description="Prints the volume whenever it changes.")
    parser.add_argument("value", nargs="?", type=int, help="set the volume to this first")
    value = parser.parse_args().value
    settings = SystemMessageBus().get_proxy(SERVICE, OBJECT)
    try:
        # Listen first, then read: nothing is missed in between.
        settings.ValueChanged.connect(show)
        show(VOLUME, settings.GetData(VOLUME, ["value"])["value"])
    except DBusError as error:
        sys.exit(f"no volume: {error}")
    if value is not None:
        change(settings, value)
    EventLoop().run()


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
