/* kernel-responder: plays the printer's firmware on the gadget side of the
 * kernel's USB printer function: reads command frames from /dev/g_printer0,
 * writes each as a hex line to the record file, and answers the
 * network-configuration and job-log reads. With --unplug-on-read it unbinds
 * the gadget from its controller instead of answering a read, as a printer
 * pulled out mid-exchange. SIGSTOP makes it stop reading (the host's writes
 * then wait), SIGTERM ends it.
 *
 * The gadget hands over whatever the host has sent since the last read:
 * when the host's next frame comes before the firmware has read the last
 * (Save writes the settings and at once asks for them back), one read holds
 * both. So the reads are cut into the protocol's frames, as a firmware parses
 * its input. A real printer answers within milliseconds: in C and at a
 * real-time priority, this answers as promptly in an emulated VM on a busy
 * machine, well within the host's 1 s read.
 *
 * Usage: kernel-responder RECORD GADGET_DIR [--unplug-on-read]
 */
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

static const uint8_t read_netcfg[] = {0x1B, 0x5E, 0x49, 0x53, 0x52};
static const uint8_t write_netcfg[] = {0x1B, 0x5E, 0x49, 0x53, 0x57};
static const uint8_t read_log[] = {0x1B, 0x1D, 0x1E, 0x10, 0x57, 0x1B, 0x1D, 0x1F};
static const uint8_t reset_log[] = {0x1B, 0x1D, 0x1E, 0x10, 0x55, 0x1B, 0x1D, 0x1F};
static const uint8_t trigger[] = {0x1B, 0x1D, 0x1E, 0x10, 0x1D};  /* then the time and 1B 1D 1F */

/* Each command by how it begins and its whole length. */
static const struct {
    const uint8_t* head;
    size_t head_size, size;
} commands[] = {
    {read_netcfg, sizeof read_netcfg, sizeof read_netcfg},
    {write_netcfg, sizeof write_netcfg, sizeof write_netcfg + 13},
    {read_log, sizeof read_log, sizeof read_log},
    {reset_log, sizeof reset_log, sizeof reset_log},
    {trigger, sizeof trigger, sizeof trigger + 4 + 3},
};
/* The log: a count, then each job's start, all 32-bit little-endian. */
static const uint32_t jobs[] = {2, 1795420800, 1795424400};

static int is(const uint8_t* frame, size_t n, const uint8_t* command, size_t size)
{
    return n == size && memcmp(frame, command, size) == 0;
}

/* The length of the frame that begins bytes: a command's, or all that is left
 * when no command begins there. */
static size_t frame_length(const uint8_t* bytes, size_t n)
{
    for (size_t i = 0; i < sizeof commands / sizeof commands[0]; ++i)
        if (n >= commands[i].size && memcmp(bytes, commands[i].head, commands[i].head_size) == 0)
            return commands[i].size;
    return n;
}

static void pause_briefly(void)
{
    const struct timespec moment = {0, 50 * 1000 * 1000};
    nanosleep(&moment, NULL);
}

static void answer(int fd, const uint8_t* reply, size_t size)
{
    if (write(fd, reply, size) != (ssize_t)size)
        perror("responder: answering");
}

static int unplug(const char* gadget)
{
    char path[4096];
    snprintf(path, sizeof path, "%s/UDC", gadget);
    FILE* udc = fopen(path, "w");
    if (udc == NULL || fputs("\n", udc) == EOF || fclose(udc) != 0) {
        perror("responder: unbinding the gadget");
        return 1;
    }
    return 0;
}

int main(int argc, char** argv)
{
    if (argc < 3 || (argc == 4 && strcmp(argv[3], "--unplug-on-read") != 0) || argc > 4) {
        fprintf(stderr, "usage: kernel-responder RECORD GADGET_DIR [--unplug-on-read]\n");
        return 2;
    }
    const int unplug_on_read = argc == 4;
    /* The firmware runs before anything else in the VM; failing that, as near as it may. */
    const struct sched_param param = {.sched_priority = 10};
    if (sched_setscheduler(0, SCHED_FIFO, &param) != 0)
        setpriority(PRIO_PROCESS, 0, -20);

    uint8_t netcfg[13] = {0x00, 192, 168, 7, 20, 192, 168, 7, 1, 255, 255, 255, 0};
    uint8_t log[sizeof jobs];
    for (size_t i = 0; i < sizeof jobs / sizeof jobs[0]; ++i)
        for (size_t b = 0; b < 4; ++b)
            log[4 * i + b] = (uint8_t)(jobs[i] >> (8 * b));

    const int fd = open("/dev/g_printer0", O_RDWR);
    if (fd < 0) {
        perror("responder: /dev/g_printer0");
        return 1;
    }
    FILE* record = fopen(argv[1], "a");
    if (record == NULL) {
        perror(argv[1]);
        return 1;
    }
    fprintf(stderr, "responder: ready\n");

    uint8_t bytes[4096];
    for (;;) {
        const ssize_t got = read(fd, bytes, sizeof bytes);
        if (got <= 0) {
            /* The host set the interface anew (usblp binding, say): the
             * firmware waits for it rather than dying, and never spins. */
            if (got < 0)
                fprintf(stderr, "responder: %s; reading again\n", strerror(errno));
            pause_briefly();
            continue;
        }
        for (size_t at = 0, n; at < (size_t)got; at += n) {
            const uint8_t* frame = bytes + at;
            n = frame_length(frame, (size_t)got - at);
            /* Recorded before the answer: whoever has the answer finds the frame. */
            for (size_t i = 0; i < n; ++i)
                fprintf(record, "%02x", frame[i]);
            fputc('\n', record);
            fflush(record);
            const int netcfg_read = is(frame, n, read_netcfg, sizeof read_netcfg);
            const int log_read = is(frame, n, read_log, sizeof read_log);
            if ((netcfg_read || log_read) && unplug_on_read)
                return unplug(argv[2]);
            if (netcfg_read)
                answer(fd, netcfg, sizeof netcfg);
            else if (log_read)
                answer(fd, log, sizeof log);
            else if (n == sizeof write_netcfg + sizeof netcfg && memcmp(frame, write_netcfg, sizeof write_netcfg) == 0)
                memcpy(netcfg, frame + sizeof write_netcfg, sizeof netcfg);
        }
    }
}
