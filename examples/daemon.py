#!/usr/bin/python3 -IS
"""daemon.py -- the least that a service daemon has to do, in Python: docs/protocol.md says why.

Each connection has a process of its own, so that no user can hold up another one.  What is delivered
is read to its end, and its length goes to /var/run/example-daemon.log.
"""
import os
import select
import signal
import socket
import sys


def consume(descriptor):
    total = 0
    while chunk := os.read(descriptor, 65536):
        total += len(chunk)
    with open('/var/run/example-daemon.log', 'a', encoding='ascii') as log:
        log.write(f'{total} bytes\n')


def serve(peer):
    """Step 1: greet.  Step 2: the greeting comes back with the descriptor.  Step 3: "1" accepts it."""
    peer.settimeout(10)  # A user may stop the opener at any point.
    peer.send(b'g')
    byte, descriptors, _, _ = socket.recv_fds(peer, 1, 1)
    if byte != b'g' or not descriptors:
        return
    peer.send(b'1')
    peer.close()
    consume(descriptors[0])


def main():
    listener = socket.socket(fileno=int(sys.argv[1]))  # argv[2], the status pipe, is of no interest here
    os.setgroups([])  # Nothing of the user stays.
    os.setgid(0)
    os.setuid(0)
    os.environ.clear()
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    listener.listen(socket.SOMAXCONN)
    listener.setblocking(False)
    while True:
        select.select([listener], [], [])
        try:
            peer, _ = listener.accept()
        except OSError:  # The opener has gone in between.
            continue
        with peer:
            if os.fork() == 0:
                listener.close()
                serve(peer)
                os._exit(0)


if __name__ == '__main__':
    main()
