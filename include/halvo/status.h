/* Halvo IPC: the status of the whole segment, as documents, tables for a terminal, or a log line.
 *
 * The printers read the segment without any lock: a counter may be caught halfway through a change,
 * and a message while it is overwritten. They change nothing in it but `uptime`, when that is 0
 * and the process did not attach by q_attach_view().
 * They use process-wide state, so one thread at a time may be in any function of this header.
 *
 * A program that prints status again and again prepares this once, after init_shm():
 *
 *     int channels = (int)q_0()->nchnnl;
 *     int size = (int)(sizeof(halvo_segment) + channels * sizeof(halvo_channel));
 *     lastcheck = calloc(channels, sizeof(halvo_counter));   // rates are measured from here
 *     snapshot = calloc(1, size);                            // counts are shown from here
 *     q_snapshot(snapshot, size);
 *     q_load_print_options("channels.opt");                  // which channels, in which order
 *     q_statprint2('a');
 *
 * Conventions
 *   mode      'a' all channels by number; 's' all chosen channels, counts since the snapshot; 'w' (only
 *             where it says so) without escapes; any other letter only channels with activity.
 *   chosen    the channels of the options list, in its order; all of them when none is loaded.
 *   activity  a memory-ring writer or reader in the last 5 seconds, or a file-queue writer or
 *             reader in the last 10: the letters W R W R, '_' where there is none. "Now" is
 *             time(NULL), not the segment's cached clock.
 *   rate      messages per second since this channel was printed last, by the file queue's count for
 *             a channel of type 'F', else by the ring's. 0 without `lastcheck` and when less than a
 *             millisecond has passed. Every printer but the clients table moves the point from which
 *             the next one measures.
 *   replies   counted when `ackq` is greater than 0, by types `acktype` and `rslttype` of channel
 *             `ackq`; a number that is no channel, or no type, counts 0.
 *   output    standard output through stdio, flushed at the end; Korean texts and channel names as
 *             EUC-KR bytes; widths count bytes. Names are not escaped.
 *   results   0 unless stated. Without an attached segment every printer prints what needs none.
 *   cancel    no function here is a cancellation point: a cancelled thread makes its call to the end.
 *   missing   a chosen number that is no channel prints "WARNNING! <number>th q is null" and ends
 *             the list of channels.
 */
#ifndef HALVO_STATUS_H
#define HALVO_STATUS_H

#include "halvo/segment.h"

enum {
    HALVO_PRINT_OPTIONS = 1024,  /* records behind qprtopts */
    HALVO_OPTION_UNUSED = -1,    /* channel of a record behind the last one */
    HALVO_OPTION_SPECIAL = -888, /* channel of the !TITLE, !HEADER and !MSG records */
    HALVO_OUT_PREFIXES = 6,
    HALVO_ELAPSED_SIZE = 16,      /* room for an elapsed text */
    HALVO_LAST_MESSAGE_SIZE = 125 /* room for the text of the last message */
};

/* One line of an options file. */
typedef struct halvo_print_option {
    int32_t channel; /* channel number, HALVO_OPTION_UNUSED or HALVO_OPTION_SPECIAL */
    int32_t indent;  /* blanks before the name */
    int32_t attr1;   /* terminal attribute (SGR number, such as 1 bold or 33 yellow), or -1 */
    int32_t attr2;   /* a second one, or -1 */
} halvo_print_option;

HALVO_BEGIN_DECLS

/* ---- State that the program sets --------------------------------------------------------- */

/* Where rates are measured from: one record per channel, zero-filled by the program that owns the
 * memory; `count` is the message count and `tstart` the q_day_millis() of the last print. Null: no
 * rates. */
HALVO_API extern halvo_counter *lastcheck;
/* An image from q_snapshot() or q_load_snapshot() of this very segment, of at least
 * sizeof(halvo_segment) + nchnnl * sizeof(halvo_channel) bytes, owned by the program and aligned
 * for 32-bit words. Null: counts are absolute. Its `now` tells when it was taken; 0 or less: never. */
HALVO_API extern void *snapshot;
/* The first two letters of the names of channels that lead out of the gateway, for the last-message
 * line. Default "MT" and five empty ones, which match nothing. To add one:
 *     strcpy(qm_out_prefixes[1], "KT"); */
HALVO_API extern char qm_out_prefixes[HALVO_OUT_PREFIXES][3];

/* ---- State that the library keeps -------------------------------------------------------- */

HALVO_API extern char cellbuf[1024];    /* scratch: the cell or fragment that was printed last */
HALVO_API extern char cellformat[256];  /* scratch: the format that was built last */
HALVO_API extern int32_t prt_itvl;      /* q_day_millis() at the start of the latest print */
HALVO_API extern int32_t start_tvsec;   /* origin of q_day_millis(), seconds; 0: no call yet */
HALVO_API extern int titleToggle;       /* number of banners; moves the star marks */
HALVO_API extern int forecolors[7];     /* foreground colours 30 .. 36 of the star marks */
HALVO_API extern halvo_channel *q_last; /* what qm_last_out_q() chose last */
/* HALVO_PRINT_OPTIONS records in the order of the options file, ended by an unused one; null before
 * the first file. */
HALVO_API extern halvo_print_option *qprtopts;
/* The records of the lines !TITLE, !HEADER and !MSG, which colour the banner, the header of
 * q_statprint2() and the last message; null when the file has none. */
HALVO_API extern halvo_print_option *qoptTitle;
HALVO_API extern halvo_print_option *qoptHeader;
HALVO_API extern halvo_print_option *qoptMsg;

/* ---- Documents --------------------------------------------------------------------------- */
/* out  room for the whole document, which is not checked: 128 bytes and 1024 for each channel are
 *      always enough. Null writes nothing. Emptied when there is no memory to build the document.
 * Names are not escaped. */

/* An XML document, root element smsqm, of the channels of `mode`. Counts are since the snapshot. */
HALVO_API int q_statprint_xml(char mode, char *out) HALVO_NOEXCEPT;
/* A JSON document of all channels, whatever the mode. Counts are absolute. Without a segment the text
 * is not valid JSON: {"smsqm":[ qm0 is null */
HALVO_API int q_statprint_json(char mode, char *out) HALVO_NOEXCEPT;
/* Writes the time since `stamp` (seconds since the epoch): hours:minutes:seconds, or
 * days-hours:minutes from a day on; nothing when stamp is 0.
 * dst  HALVO_ELAPSED_SIZE bytes. */
HALVO_API int q_print_elapsed_str(char *dst, int32_t stamp) HALVO_NOEXCEPT;
/* Milliseconds since the first call in this process. Wraps after 24.8 days. */
HALVO_API int32_t q_day_millis(void) HALVO_NOEXCEPT;

/* ---- Tables ------------------------------------------------------------------------------ */

/* The banner: title, up-time, date, and the time since the snapshot. Two star marks change places and
 * colours from print to print when the environment has HALVO_HOST_TYPE=REAL.
 * mode  'w' leaves colours out, but for those of !TITLE when there is no snapshot. */
HALVO_API void q_printlogo2(char mode) HALVO_NOEXCEPT;
/* q_printlogo2('f'). */
HALVO_API void q_printlogo(void) HALVO_NOEXCEPT;
/* The fixed table of all channels; the options list is not used. Its rate counts whole messages per
 * millisecond, so that it is a multiple of 1000. */
HALVO_API int q_statprint_classic(char mode) HALVO_NOEXCEPT;
/* The table of the channels of `mode`. A special line in the options file ends the list. */
HALVO_API int q_statprint(char mode) HALVO_NOEXCEPT;
/* The table with the colours of the options file. Special lines are stepped over, yet each takes one
 * of the nchnnl places of the list. Mode 'w' shows every chosen channel and prints no escapes.
 * Returns the number of rows. */
HALVO_API int q_statprint2(char mode) HALVO_NOEXCEPT;
/* Rates and per-type counts of all channels, for the types whose name in the segment contains
 * `needle`; null is "", which all names contain. */
HALVO_API int q_tstatprint(const char *needle) HALVO_NOEXCEPT;
/* The processes at each channel: writer, reader, file-queue writer and reader, ten writer-side and
 * ten reader-side clients; 0 for one that gave no sign of life for more than 9 seconds. */
HALVO_API int q_clientsprint(void) HALVO_NOEXCEPT;

/* One line for a log file: date, then for every channel of `mode` ('a' all, else the chosen ones) a
 * group of comma-separated fields and a tab, then the last message. Counts are since the snapshot. */
HALVO_API int q_statlog(char mode) HALVO_NOEXCEPT;

/* ---- Options file ------------------------------------------------------------------------ */

/* Loads an options file, which replaces the one before. Lines of at most 1023 bytes:
 *
 *     # a comment
 *     MT01 1 33        channel name, then up to two attributes (here bold, yellow)
 *       MO01 0 32      leading blanks indent the name
 *     !TITLE 1 36      attributes of the banner; !HEADER of the header, !MSG of the last message
 *
 * Unknown names are dropped silently; special lines belong behind all channels. Each record is
 * echoed as "NAME(MT01)(4),CHNNL(0),INDENT(0)". After 1024 records the rest is ignored, with one
 * line said.
 * returns  0; a negative number when the file cannot be opened or there is no memory, which leaves
 *          the list as it was. A file that cannot be read leaves it too. */
HALVO_API int q_load_print_options(const char *path) HALVO_NOEXCEPT;
/* Reads a line with its newline, byte by byte, at most max - 1 bytes, and ends it with a NUL.
 * returns  bytes stored; 0 at the end of the file; -1 after a read error. Blocks as read() does. */
HALVO_API int readline(int fd, char *buf, int max) HALVO_NOEXCEPT;

/* ---- Cells ------------------------------------------------------------------------------- */
/* width  bytes of the field; the text stands right, or left when the width is negative. */

/* Prints a text. Null is "". */
HALVO_API void q_print_txt(int width, const char *text) HALVO_NOEXCEPT;
/* Prints `indent` blanks (below 0: none) and the text in what is left of the field. */
HALVO_API void q_print_txt_indent(int width, const char *text, int indent) HALVO_NOEXCEPT;
/* Prints a number, or blanks for 0. */
HALVO_API void q_print_num(int width, int64_t value) HALVO_NOEXCEPT;
/* Prints a number as q_print_num(), then "/second" in a field of width2, or blanks for 0. */
HALVO_API void q_print_num2(int width1, int64_t first, int width2, int64_t second) HALVO_NOEXCEPT;
/* Prints the elapsed text of a stamp, or eight blanks for 0. */
HALVO_API void q_print_elapsed(int32_t stamp) HALVO_NOEXCEPT;
/* Prints the slot letters at the write position, at the read position, a blank, and those of the
 * read buffers. */
HALVO_API void q_print_rwrw_bufs(const halvo_channel *channel) HALVO_NOEXCEPT;

/* ---- The last message -------------------------------------------------------------------- */

/* The channel among the outbound ones (qm_out_prefixes) whose reader took a message last, also kept
 * in q_last; null when there is none. Of equals the first from a random start on. Calls rand().
 * segment  the attached segment's header; any other, and null, gives null. */
HALVO_API halvo_channel *qm_last_out_q(halvo_segment *segment) HALVO_NOEXCEPT;
/* The slot before the channel's read position, in the segment; null for null. */
HALVO_API qmsg *qm_last_msg_of(halvo_channel *channel) HALVO_NOEXCEPT;
/* Prints the line of the last message: channel, time since its last put, and the text, which is at
 * most 124 bytes from byte 306 of the message. Mode 'w' leaves out erasing and resetting, not the
 * colours of !MSG. Returns 0, or -1 when there is no outbound channel. */
HALVO_API int qm_print_last_msg2(char mode) HALVO_NOEXCEPT;
/* qm_print_last_msg2('f'). */
HALVO_API int qm_print_last_msg(void) HALVO_NOEXCEPT;
/* Copies that text, and returns the channel, or null when there is none.
 * dst  HALVO_LAST_MESSAGE_SIZE bytes. */
HALVO_API halvo_channel *qm_sprint_last_msg(char *dst) HALVO_NOEXCEPT;
/* Replaces white space from index n down to 1 by NUL. Returns the index where it stopped. */
HALVO_API int qm_rtrim2(char *s, int n) HALVO_NOEXCEPT;
/* The same, and removes a '$' found there; then makes every "\n" of two characters a newline. */
HALVO_API int qm_rtrim(char *s, int n) HALVO_NOEXCEPT;
/* Makes carriage returns and newlines among the first n characters blanks. Returns 0. */
HALVO_API int qm_span(char *s, int n) HALVO_NOEXCEPT;

HALVO_END_DECLS

#endif
