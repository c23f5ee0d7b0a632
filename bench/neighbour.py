"""A bad neighbour: peers that send without end and read no answer. Says "flooding" when it does.

neighbour.py PEERS COUNT RATE PAYLOAD: how many peers, how many messages in all (or inf), how many a second (or inf),
what in hexadecimal.
"""

import sys
import time

import zmq

peers, count, rate, payload = int(sys.argv[1]), float(sys.argv[2]), float(sys.argv[3]), bytes.fromhex(sys.argv[4])
context = zmq.Context()
poller = zmq.Poller()
for _ in range(peers):
    socket = context.socket(zmq.DEALER)
    socket.connect("tcp://127.0.0.1:9304")
    poller.register(socket, zmq.POLLOUT)

start, sent = time.monotonic(), 0
while sent < count:
    for socket, _ in poller.poll():  # those whose connection and queue take one more
        socket.send(payload)
        sent += 1
    if sent >= 1000 * peers and sent < 1001 * peers or sent == count:
        print("flooding", flush=True)
    if rate != float("inf"):
        time.sleep(max(0, start + sent / rate - time.monotonic()))
time.sleep(3600)
