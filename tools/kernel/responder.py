"""Plays the printer's firmware on the gadget side of the kernel's USB printer
function: reads command frames from /dev/g_printer0, writes each as a hex line
to the record file, and answers the network-configuration and job-log reads.
With --unplug-on-read it unbinds the gadget from its controller instead of
answering a read, as a printer pulled out mid-exchange. SIGSTOP makes it stop
reading (the host's writes then wait), SIGTERM ends it.

Usage: responder.py RECORD GADGET_DIR [--unplug-on-read]
"""
import os
import struct
import sys
import time

NETCFG = bytes([0x00, 192, 168, 7, 20, 192, 168, 7, 1, 255, 255, 255, 0])
JOBS = [1795420800, 1795424400]
READ_NETCFG = bytes.fromhex("1b5e495352")
READ_LOG = bytes.fromhex("1b1d1e10571b1d1f")


def main(record, gadget, unplug_on_read):
    netcfg = NETCFG
    fd = os.open("/dev/g_printer0", os.O_RDWR)
    with open(record, "a", buffering=1) as rec:
        print("responder: ready", file=sys.stderr, flush=True)
        while True:
            try:
                frame = os.read(fd, 4096)
            except OSError as e:
                # The host set the interface anew (usblp binding, say): the
                # firmware waits for it rather than dying.
                print("responder: %s; reading again" % e, file=sys.stderr, flush=True)
                time.sleep(0.05)
                continue
            if not frame:
                continue
            rec.write(frame.hex() + "\n")
            if frame in (READ_NETCFG, READ_LOG) and unplug_on_read:
                with open(os.path.join(gadget, "UDC"), "w") as udc:
                    udc.write("\n")
                return
            if frame == READ_NETCFG:
                os.write(fd, netcfg)
            elif frame == READ_LOG:
                os.write(fd, struct.pack("<%dI" % (1 + len(JOBS)), len(JOBS), *JOBS))
            elif frame[:5] == bytes.fromhex("1b5e495357") and len(frame) == 18:
                netcfg = frame[5:]


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2], "--unplug-on-read" in sys.argv[3:])
