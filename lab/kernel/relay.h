/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the relay module and the holder of its control node say to each other. The module makes a
 * boot node and a dump node; whatever is done with them becomes an event that is read from the
 * control node, one per read, and the holder answers with the orders below. Used by both sides.
 */
#ifndef RVD_RELAY_H
#define RVD_RELAY_H

#include <linux/ioctl.h>
#include <linux/types.h>
#ifdef __KERNEL__
#include <linux/build_bug.h>
#endif

#define RELAY_CONTROL_NAME "rvd_relay"

enum {
	RELAY_NODE_BOOT = 0,
	RELAY_NODE_DUMP = 1,
	RELAY_NODES = 2,
};

/* Limits: a packet or a copy at most, and the packets that wait in one direction of one open. */
enum {
	RELAY_MAX_PACKET = 1 << 16,
	RELAY_MAX_QUEUED = 1 << 18,
	RELAY_MAX_OPENS = 64,
	RELAY_REASON_SIZE = 512,
};

enum {
	RELAY_OPEN = 1,  /* wants an answer: 0 or a negated errno */
	RELAY_CLOSE = 2, /* `open` is not heard of again */
	RELAY_IOCTL = 3, /* wants an answer: what the caller's ioctl returns */
	RELAY_WRITE = 4, /* one write, as data */
	RELAY_WAIT = 5,  /* the caller begins to wait; `request` has the poll events it asked for */
	RELAY_ROOM = 6,  /* an open that refused a packet takes packets again */
};

/* One event. `length` bytes of data follow it: a write's packet, or what an ioctl's argument held.
 */
struct relay_event {
	__u32 kind;
	__u32 node;
	__u64 open;     /* which open descriptor; numbers are not used twice */
	__u64 call;     /* names the waiting caller in orders; 0 where none waits */
	__u64 argument; /* of an ioctl, as the caller gave it */
	__u32 request;  /* of an ioctl */
	__u32 length;
};

/*
 * Ends a caller's wait. Data is for a request that reads: at most as many bytes as the request
 * encodes, put where its argument points.
 */
struct relay_answer {
	__u64 call;
	__s64 result;
	__u64 data;
	__u32 length;
	__u32 reserved;
};

/* A packet for the reader of an open descriptor. -EAGAIN: no room, RELAY_ROOM will tell. */
struct relay_packet {
	__u64 open;
	__u64 data;
	__u32 length;
	__u32 reserved;
};

/* A hang-up is raised (`raised` 1) or ended (0). */
struct relay_hangup {
	__u64 open;
	__u32 raised;
	__u32 reserved;
};

/* Bytes of a waiting caller's memory, for arguments whose size no request number tells. */
struct relay_copy {
	__u64 call;
	__u64 address; /* in the caller */
	__u64 data;    /* in the holder */
	__u32 length;
	__u32 to_caller;
};

struct relay_panic {
	char reason[RELAY_REASON_SIZE]; /* NUL-terminated */
};

static_assert(sizeof(struct relay_event) == 40, "an event is 40 bytes");
static_assert(sizeof(struct relay_answer) == 32, "an answer is 32 bytes");
static_assert(sizeof(struct relay_packet) == 24, "a packet order is 24 bytes");
static_assert(sizeof(struct relay_hangup) == 16, "a hang-up order is 16 bytes");
static_assert(sizeof(struct relay_copy) == 32, "a copy order is 32 bytes");
static_assert(sizeof(struct relay_panic) == 512, "a panic order is 512 bytes");

/* Orders, all on the control node; -ENOENT where the caller or the open is gone. */
#define RELAY_DO_ANSWER _IOW('R', 1, struct relay_answer)
#define RELAY_DO_DELIVER _IOW('R', 2, struct relay_packet)
#define RELAY_DO_FLUSH _IOW('R', 3, __u64) /* forgets what was delivered and not read */
#define RELAY_DO_HANGUP _IOW('R', 4, struct relay_hangup)
#define RELAY_DO_COPY _IOW('R', 5, struct relay_copy)
#define RELAY_DO_PANIC _IOW('R', 6, struct relay_panic) /* does not return */

#endif
