# SPDX-License-Identifier: BSD-2-Clause
"""Each system call and each allocation of a session fails in turn; the service must end by itself,
with listed lines and the errno of what failed."""

import errno
import itertools

import pytest

import harness
from harness import (SESSION_REPLIES, SESSION_SCRIPT, Counts, Service, attached, entry_of, replies,
                     session)

def endings(segment, call, error, unlisted=(), system=None):
    """The ending of the session for each such call, one command a read."""
    found = []
    for number in itertools.count(1):
        counts = Counts()
        service = Service(script=SESSION_SCRIPT, fault=f"{call}={number}:{error}", counts=counts,
                          system=system)
        for command in session(segment):
            service.send(command)
            service.settle()
        ending = service.finish()
        if counts.now()[2] == 0:  # there is no such call any more
            return found
        found.append(ending)
        strange = [line for line in ending.lines if not entry_of(line) and not line.startswith(unlisted)]
        assert ending.status >= 0 and not strange, (call, number, error, ending)
        assert attached(segment) == 0


@pytest.mark.parametrize("call", ["read", "writev", "shmat", "shmdt", "stat", "dlopen", "dlclose"])
@pytest.mark.parametrize("error", [errno.EINTR, errno.EAGAIN, errno.EIO])
def test_a_system_call_fails(call, error, segment):
    found = endings(segment, call, error)
    statuses = [ending.status for ending in found]
    status = 0 if error == errno.EIO else error
    if call in ("read", "writev", "shmat"):
        assert set(statuses) == {status}
    elif call == "shmdt":  # goes on; the one of the shutdown leaves its errno
        assert statuses == [0] * (len(statuses) - 1) + [status]
    else:  # no library: ENOENT of the second place; a library that stays open: ENOMSG
        assert statuses == [{"stat": 2, "dlopen": 2, "dlclose": 42}[call]]
    if call == "writev":
        assert [replies(ending.output) for ending in found] == [
            SESSION_REPLIES[:count] for count in range(7)]


@pytest.mark.parametrize("call", ["allocation", "allocations"])
@pytest.mark.parametrize("system", [None] + [harness.REAL] * harness.LONG)
def test_an_allocation_fails(call, system, segment):
    """Once, and from then on. The real encoder's own lines, which say what it lacks, are its affair."""
    assert len(endings(segment, call, errno.ENOMEM, "~ " if system else (), system)) > 10
