#!/bin/sh
# Inside the VM of tests/kernel/run: the kernel's USB printer gadget on
# dummy_hcd, seen by the same kernel's host side as a USB printer, then the
# tests. Nothing loads modules on demand here: each is loaded by hand.
# Usage (as the VM's script): inside.sh BUILD [GTEST OPTION...]
build=$1
shift
here=$(dirname "$0")
fail() { echo "inside: $*"; echo 1 > /results/status; exit 1; }

for m in dummy_hcd libcomposite usb_f_printer; do modprobe "$m" || fail "cannot load $m"; done
mount -t configfs none /sys/kernel/config || fail "cannot mount configfs"
g=/sys/kernel/config/usb_gadget/printer
mkdir -p $g/strings/0x409 $g/functions/printer.usb0 $g/configs/c.1 || fail "no printer gadget in configfs"
echo 0x1a2b > $g/idVendor
echo 0x00c4 > $g/idProduct
echo K7Q0012 > $g/strings/0x409/serialnumber
echo "Kernel Printer" > $g/strings/0x409/product
echo "Pellavoy tests" > $g/strings/0x409/manufacturer
# Linux 6.1 drops the last two characters of the device ID: two more to lose.
printf 'MFG:Pellavoy;CMD:ESC;MDL:KP-1;CLS:PRINTER;..' > $g/functions/printer.usb0/pnp_string
ln -s $g/functions/printer.usb0 $g/configs/c.1/
echo dummy_udc.0 > $g/UDC || fail "cannot bind the gadget"

KERNEL_GADGET=$g KERNEL_RESPONDER=$build/tools/kernel-responder KERNEL_TOOLS=$build/tools \
  "$build/tests/test_kernel" --gtest_filter='Kernel.*' --gtest_output=xml:/results/kernel.xml "$@"
status=$?

echo "inside: one session of the real window (Xvfb, accessibility bus)"
KERNEL_GADGET=$g PELLAVOY_BUILD=$build HOME=/root \
  dbus-run-session -- xvfb-run -a /usr/bin/python3 "$here/gui_session.py" >/results/gui.log 2>&1 || status=1
grep -E '^(test_|FAIL|ERROR|AssertionError|[0-9]+ passed)' /results/gui.log
echo $status > /results/status
