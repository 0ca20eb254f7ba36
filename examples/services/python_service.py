#!/usr/bin/env python3
"""A complete base service in Python: it beats, says that it is ready, prints what it is told about
applications, and says goodbye when it is asked to end."""
import signal
import sys

from process_manager import Agent, AgentError, Change, State

ENDS = (signal.SIGTERM, signal.SIGINT)


def print_changes(changes: list[Change]) -> None:
    for change in changes:
        print(f"{change.name}: pid {change.pid}, event {change.event}", flush=True)


def main() -> int:
    # Blocked, so that the signal waits for sigwait below.
    signal.pthread_sigmask(signal.SIG_BLOCK, ENDS)
    try:
        # The name is the PROC_NAME that the service file sets.
        with Agent(on_changes=print_changes) as agent:
            agent.start_heartbeat()
            # A real service gets ready here. The manager opens its channel in a moment: wait for it.
            agent.report(State.READY, wait=60)
            signal.sigwait(ENDS)
            agent.report(State.GOING_DOWN)
    except AgentError as error:
        print(f"python_service: {error.strerror}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
