"""What goes over the wire between a sender and a listener.

The texts stand here as a tester reads them in docs/protocol.md, and are not
taken from the program: a change of the program's own turns tests red.
"""

import re

HEADER = b"CONNECT TO TOLVA (SEND)"
REPLY_HEADER = b"CONNECT TO TOLVA (REPLY)"
EXECUTE = HEADER + b" MSG_EXECUTE "
STATUS = HEADER + b" MSG_EXECSTATUS "
LOG_TEXT = EXECUTE + b"LOG_TEXT "

REPLY = re.compile(re.escape(REPLY_HEADER) + rb" COMMAND=(.*) PID=(\d+) "
                   rb"EXITSTATUS=(-?\d+)", re.DOTALL)


def reply_with(tail, command=b"/x.sh", pid=4711):
    """A reply, whose tail should be its status."""
    return REPLY_HEADER + b" COMMAND=%b PID=%d %b" % (command, pid, tail)


# A text for the log has no script and no process.
LOGGED = reply_with(b"EXITSTATUS=0", b"", 0)
NOT_LOGGED = reply_with(b"EXITSTATUS=1", b"", 0)


def reply_parts(reply):
    """(command, process id, status) of a reply, which is matched whole."""
    match = REPLY.fullmatch(reply)
    assert match, reply
    return match[1].decode("latin-1"), int(match[2]), int(match[3])
