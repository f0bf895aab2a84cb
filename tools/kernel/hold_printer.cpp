// hold-printer: claims interface 0 of the USB device VID:PID through libusb,
// as a second program would, prints "held" and keeps it until SIGTERM.
#include <libusb.h>

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: hold-printer VID PID (hexadecimal)\n");
        return 2;
    }
    libusb_context* ctx = nullptr;
    if (libusb_init(&ctx) != 0)
        return 1;
    libusb_device_handle* h = libusb_open_device_with_vid_pid(ctx, static_cast<uint16_t>(strtoul(argv[1], nullptr, 16)),
                                                              static_cast<uint16_t>(strtoul(argv[2], nullptr, 16)));
    const int r = h != nullptr ? libusb_claim_interface(h, 0) : LIBUSB_ERROR_NOT_FOUND;
    if (r != 0) {
        fprintf(stderr, "hold-printer: %s\n", libusb_strerror(r));
        return 1;
    }
    printf("held\n");
    fflush(stdout);
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, nullptr);
    int sig = 0;
    sigwait(&term, &sig);
    libusb_release_interface(h, 0);
    libusb_close(h);
    libusb_exit(ctx);
    return 0;
}
