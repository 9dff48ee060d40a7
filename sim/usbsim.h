/*
 * Control and recording API of the simulated scanner (libusb-0.1.so.4 built
 * from sim/). In-process tests use it to load scenarios, switch faults and
 * read back what the host sent; out-of-process runs get the same record as a
 * text file through QUARTO_USBSIM_LOG.
 *
 * Devices are numbered from 0 in the order of their "device" lines. All
 * functions are safe to call from any thread and before usb_init().
 */
#ifndef USBSIM_H
#define USBSIM_H

#ifdef __cplusplus
extern "C" {
#endif

/* The window of the last scan started (the START request's settings for
 * command versions 326/401/402, the LOCK record for 500). */
struct usbsim_window {
    int color;             /* 1 line art, 2 grey, 3 colour */
    int compression;
    int compression_level;
    int filter;
    unsigned width;        /* pixels per line */
    unsigned lines;
    unsigned offset_x;
    unsigned offset_y;
    int xres;
    int yres;
    int source;            /* -1 when the request has no source byte (326) */
    int request;           /* request that carried it: 3 LOCK, 4 START */
    int data_len;          /* bytes of the request after its 8-byte header */
    unsigned char data[64];/* the first min(data_len, 64) of them */
};

/* Replaces the whole simulation by the scenario text (or file): every device,
 * fault, queue and record is discarded first. Returns 0 when every line parsed,
 * the number of faulty lines otherwise (reported on stderr; the good lines are
 * still loaded), -1 when the file cannot be read. */
int usbsim_load_text(const char* scenario);
int usbsim_load_file(const char* path);

/* Back to the state before anything was loaded; the next usb_init() reads
 * QUARTO_USBSIM again. Structures handed out earlier stay readable. */
void usbsim_reset(void);

/* Number of devices in the scenario. */
int usbsim_device_count(void);

/* Bulk writes that reached device dev, oldest first (failed writes are not
 * counted; they appear in the event log). usbsim_get_write copies up to cap
 * bytes of write `index` and returns its full length, -1 when there is none. */
int usbsim_write_count(int dev);
int usbsim_get_write(int dev, int index, unsigned char* buf, int cap);
int usbsim_write_endpoint(int dev, int index);

/* The event log, one line per event ("open dev=0", "claim dev=0 iface=0 rc=-16",
 * "write dev=0 ep=0x02 len=8 data=1b530300...", "window dev=0 color=3 ...").
 * The pointer stays valid until the next call of usbsim_events,
 * usbsim_clear_record, usbsim_reset or a load. */
const char* usbsim_events(void);

/* Forgets the recorded writes and events (devices and faults stay). */
void usbsim_clear_record(void);

/* Window of the last scan started on dev: 0 and *w filled, or -1 when none. */
int usbsim_last_window(int dev, struct usbsim_window* w);

/* Switches a fault at run time (names and values in sim/README.md: busy,
 * setconfig_eperm, open_fail, unplug, read_timeout, short_reply, wrong_code,
 * abort, device_abort, jam, write_fail, oom, comm_error, bad_status,
 * not_record, stall, unplug_lines). Counters restart at the value given.
 * Returns 0, or -1 for an unknown device, name or value. */
int usbsim_set_fault(int dev, const char* name, int value);
/* Current value of a fault (counters count down), or -2 when unknown. */
int usbsim_get_fault(int dev, const char* name);

/* Unplugs dev now: open handles fail with -ENODEV, and the device leaves the
 * bus list at the next usb_find_busses()/usb_find_devices(). */
int usbsim_unplug(int dev);
/* Plugs dev in (again) as bus/devfile, with fresh usb_device structures; open
 * handles of the old connection fail with -ENODEV. Returns 0 or -1. */
int usbsim_replug(int dev, const char* bus, const char* devfile);

/* Queues len bytes as one transfer from dev, read by the next bulk reads after
 * what is already queued (to feed the host malformed data). 0 or -1. */
int usbsim_inject(int dev, const unsigned char* data, int len);
/* Transfers waiting to be read on dev (a running scan counts one). */
int usbsim_queued(int dev);

/* Loads the feeder of dev with `sheets` sheets (0: empty; -1: sheets no longer
 * simulated, the scenario's "feeder" state is reported again) and restarts the
 * page count p at 1. Returns 0, or -1 for an unknown device or value. */
int usbsim_load_feeder(int dev, int sheets);
/* Sheets left in the feeder of dev; -1 when sheets are not simulated, -2 for
 * an unknown device. */
int usbsim_feeder_sheets(int dev);

/* Appends every band of a compressed scan, exactly as the devices send it, to
 * the file at path (created 0600; a symbolic link or a file of another user is
 * refused); NULL stops. Overrides QUARTO_USBSIM_BANDS. Returns 0 or -1. */
int usbsim_set_band_file(const char* path);

#ifdef __cplusplus
}
#endif

#endif
