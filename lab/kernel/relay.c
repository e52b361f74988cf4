// SPDX-License-Identifier: GPL-2.0
/*
 * Relays a modem's boot and dump nodes to a process: opens, requests, packets and waits go to
 * whoever holds the control node, answers, packets, hang-ups and panics come back. It carries them
 * without knowing what they mean. While nobody holds the control node the nodes can't be opened,
 * and what was open when its holder went is dead for good.
 */
#include <linux/fs.h>
#include <linux/kref.h>
#include <linux/list.h>
#include <linux/miscdevice.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/poll.h>
#include <linux/sched.h>
#include <linux/sched/task.h>
#include <linux/slab.h>
#include <linux/uaccess.h>
#include <linux/wait.h>

#include "relay.h"

static char *boot = "umts_boot0";
module_param(boot, charp, 0444);
MODULE_PARM_DESC(boot, "name of the boot node");
static char *dump = "umts_ramdump0";
module_param(dump, charp, 0444);
MODULE_PARM_DESC(dump, "name of the dump node");

/*
 * An event that waits to be read by the holder. The ones that tell about an open's condition are
 * part of it, so that they can neither fail nor pile up.
 */
struct relay_item {
	struct list_head list;
	struct relay_event event;
	struct relay_open *owner; /* counted while the item is queued */
	const void *data;
	bool own_memory; /* freed once read */
};

struct relay_message {
	struct list_head list;
	size_t length;
	u8 data[];
};

struct relay_open {
	struct kref refs;
	struct list_head list;
	u64 id;
	u32 node;
	bool hung, dead, closed, refused;
	struct list_head incoming; /* delivered, not read */
	size_t incoming_bytes;
	size_t outgoing_bytes; /* written, not taken by the holder */
	wait_queue_head_t wait;
	struct relay_item close_item, wait_item, room_item;
};

/* A caller that waits for the holder's answer. */
struct relay_call {
	struct list_head list;
	struct relay_item item;
	struct task_struct *task;
	wait_queue_head_t wait;
	bool done;
	s64 result;
	void *out; /* room for `out_size` bytes of answer */
	size_t out_size, out_length;
};

/* Guards everything below and every open's fields. */
static DEFINE_MUTEX(lock);
static bool held;
static u64 last_number;
static unsigned int open_count;
static LIST_HEAD(opens);
static LIST_HEAD(calls);
static LIST_HEAD(items);
static DECLARE_WAIT_QUEUE_HEAD(holder_wait);

/* What a packet counts for: an empty one takes memory as well. */
static size_t cost(size_t length)
{
	return length + 64;
}

static void free_open(struct kref *refs)
{
	open_count--;
	kfree(container_of(refs, struct relay_open, refs));
}

static void item_init(struct relay_item *item, u32 kind, struct relay_open *owner)
{
	INIT_LIST_HEAD(&item->list);
	item->event.kind = kind;
	item->event.node = owner->node;
	item->event.open = owner->id;
	item->owner = owner;
}

/* Queues an item unless it is queued already or nobody will read it. */
static void queue_item(struct relay_item *item)
{
	lockdep_assert_held(&lock);
	if (!held || item->owner->dead || !list_empty(&item->list))
		return;
	kref_get(&item->owner->refs);
	list_add_tail(&item->list, &items);
	wake_up_interruptible(&holder_wait);
}

static void unqueue_item(struct relay_item *item)
{
	struct relay_open *owner = item->owner;

	lockdep_assert_held(&lock);
	if (list_empty(&item->list))
		return;
	list_del_init(&item->list);
	if (item->event.kind == RELAY_WRITE) {
		owner->outgoing_bytes -= cost(item->event.length);
		wake_up_all(&owner->wait);
	}
	if (item->own_memory)
		kfree(item);
	kref_put(&owner->refs, free_open);
}

static void drop_incoming(struct relay_open *open)
{
	struct relay_message *message, *next;

	list_for_each_entry_safe(message, next, &open->incoming, list)
		kfree(message);
	INIT_LIST_HEAD(&open->incoming);
	open->incoming_bytes = 0;
}

static struct relay_open *find_open(u64 id)
{
	struct relay_open *open;

	list_for_each_entry(open, &opens, list)
		if (open->id == id)
			return open;
	return NULL;
}

static struct relay_call *find_call(u64 id)
{
	struct relay_call *call;

	list_for_each_entry(call, &calls, list)
		if (call->item.event.call == id)
			return call;
	return NULL;
}

/* Hands the caller's event to the holder and waits for the answer; `call` is the caller's own. */
static s64 ask_holder(struct relay_open *open, struct relay_call *call, u32 kind)
{
	int killed;

	call->task = current;
	init_waitqueue_head(&call->wait);
	mutex_lock(&lock);
	if (!held || open->dead) {
		mutex_unlock(&lock);
		return -ENODEV;
	}
	item_init(&call->item, kind, open);
	call->item.event.call = ++last_number;
	list_add_tail(&call->list, &calls);
	queue_item(&call->item);
	mutex_unlock(&lock);

	killed = wait_event_killable(call->wait, READ_ONCE(call->done));

	mutex_lock(&lock);
	unqueue_item(&call->item);
	list_del(&call->list);
	mutex_unlock(&lock);
	return call->done ? call->result : killed;
}

/* The nodes. */

static int node_open(struct inode *inode, struct file *file);

static int node_release(struct inode *inode, struct file *file)
{
	struct relay_open *open = file->private_data;

	mutex_lock(&lock);
	list_del(&open->list);
	drop_incoming(open);
	open->closed = true;
	unqueue_item(&open->wait_item);
	unqueue_item(&open->room_item);
	queue_item(&open->close_item);
	kref_put(&open->refs, free_open);
	mutex_unlock(&lock);
	return 0;
}

static long node_ioctl(struct file *file, unsigned int request, unsigned long argument)
{
	struct relay_open *open = file->private_data;
	const size_t size = _IOC_SIZE(request);
	const bool in = size > 0 && (_IOC_DIR(request) & _IOC_WRITE);
	const bool out = size > 0 && (_IOC_DIR(request) & _IOC_READ);
	struct relay_call call = {};
	void __user *user = (void __user *)argument;
	void *data = NULL;
	long result;

	if (in || out) {
		data = kvzalloc(size, GFP_KERNEL_ACCOUNT);
		if (!data)
			return -ENOMEM;
		if (in && copy_from_user(data, user, size)) {
			result = -EFAULT;
			goto done;
		}
	}
	call.item.event.request = request;
	call.item.event.argument = argument;
	call.item.event.length = in ? size : 0;
	call.item.data = data;
	call.out = data;
	call.out_size = out ? size : 0;
	result = ask_holder(open, &call, RELAY_IOCTL);
	if (call.out_length > 0 && copy_to_user(user, data, call.out_length))
		result = -EFAULT;
done:
	kvfree(data);
	return result;
}

/* One read takes one packet; what does not fit is lost, as with any message. */
static ssize_t node_read(struct file *file, char __user *buffer, size_t size, loff_t *position)
{
	struct relay_open *open = file->private_data;
	struct relay_message *message = NULL;
	ssize_t result = 0;

	mutex_lock(&lock);
	while (list_empty(&open->incoming) && !open->hung && !open->dead) {
		if (file->f_flags & O_NONBLOCK) {
			mutex_unlock(&lock);
			return -EAGAIN;
		}
		open->wait_item.event.request = EPOLLIN;
		queue_item(&open->wait_item);
		mutex_unlock(&lock);
		result = wait_event_interruptible(open->wait, !list_empty(&open->incoming) ||
								      open->hung || open->dead);
		if (result)
			return result;
		mutex_lock(&lock);
	}
	if (!list_empty(&open->incoming)) {
		message = list_first_entry(&open->incoming, struct relay_message, list);
		list_del(&message->list);
		open->incoming_bytes -= cost(message->length);
		if (open->refused && open->incoming_bytes <= RELAY_MAX_QUEUED / 2) {
			open->refused = false;
			queue_item(&open->room_item);
		}
	} else if (open->dead) {
		result = -ENODEV;
	}
	mutex_unlock(&lock);
	if (!message)
		return result;
	size = min(size, message->length);
	result = copy_to_user(buffer, message->data, size) ? -EFAULT : (ssize_t)size;
	kfree(message);
	return result;
}

static bool writable(struct relay_open *open)
{
	return open->outgoing_bytes + cost(RELAY_MAX_PACKET) <= RELAY_MAX_QUEUED;
}

/* One write is one packet. */
static ssize_t node_write(struct file *file, const char __user *buffer, size_t size,
			  loff_t *position)
{
	struct relay_open *open = file->private_data;
	struct relay_item *item;
	int result = 0;

	if (size > RELAY_MAX_PACKET)
		return -EMSGSIZE;
	item = kzalloc(sizeof(*item) + size, GFP_KERNEL_ACCOUNT);
	if (!item)
		return -ENOMEM;
	item_init(item, RELAY_WRITE, open);
	item->event.length = size;
	item->data = item + 1;
	item->own_memory = true;
	if (copy_from_user(item + 1, buffer, size)) {
		kfree(item);
		return -EFAULT;
	}
	mutex_lock(&lock);
	while (!writable(open) && !open->hung && !open->dead && !result) {
		mutex_unlock(&lock);
		if (file->f_flags & O_NONBLOCK)
			result = -EAGAIN;
		else
			result = wait_event_interruptible(
				open->wait, writable(open) || open->hung || open->dead);
		mutex_lock(&lock);
	}
	if (!result && open->dead)
		result = -ENODEV;
	else if (!result && open->hung)
		result = -EPIPE;
	if (!result) {
		open->outgoing_bytes += cost(size);
		queue_item(item);
	}
	mutex_unlock(&lock);
	if (result)
		kfree(item);
	return result ? result : (ssize_t)size;
}

static __poll_t node_poll(struct file *file, poll_table *table)
{
	struct relay_open *open = file->private_data;
	__poll_t events = 0;

	poll_wait(file, &open->wait, table);
	mutex_lock(&lock);
	if (!list_empty(&open->incoming))
		events |= EPOLLIN | EPOLLRDNORM;
	if (open->dead)
		events |= EPOLLHUP | EPOLLERR;
	else if (open->hung)
		events |= EPOLLHUP;
	else if (writable(open))
		events |= EPOLLOUT | EPOLLWRNORM;
	if (!poll_does_not_wait(table) && !(events & poll_requested_events(table))) {
		open->wait_item.event.request = poll_requested_events(table);
		queue_item(&open->wait_item);
	}
	mutex_unlock(&lock);
	return events;
}

static const struct file_operations node_operations = {
	.owner = THIS_MODULE,
	.open = node_open,
	.release = node_release,
	.unlocked_ioctl = node_ioctl,
	.read = node_read,
	.write = node_write,
	.poll = node_poll,
	.llseek = no_llseek,
};

static struct miscdevice nodes[RELAY_NODES] = {
	[RELAY_NODE_BOOT] = { .minor = MISC_DYNAMIC_MINOR, .fops = &node_operations },
	[RELAY_NODE_DUMP] = { .minor = MISC_DYNAMIC_MINOR, .fops = &node_operations },
};

static int node_open(struct inode *inode, struct file *file)
{
	/* The misc core leaves its device here. */
	const struct miscdevice *device = file->private_data;
	struct relay_call call = {};
	struct relay_open *open;
	int result;

	open = kzalloc(sizeof(*open), GFP_KERNEL_ACCOUNT);
	if (!open)
		return -ENOMEM;
	kref_init(&open->refs);
	open->node = device - nodes;
	INIT_LIST_HEAD(&open->incoming);
	init_waitqueue_head(&open->wait);
	mutex_lock(&lock);
	if (!held || open_count == RELAY_MAX_OPENS) {
		result = held ? -EMFILE : -ENODEV;
		mutex_unlock(&lock);
		kfree(open);
		return result;
	}
	open_count++;
	open->id = ++last_number;
	item_init(&open->close_item, RELAY_CLOSE, open);
	item_init(&open->wait_item, RELAY_WAIT, open);
	item_init(&open->room_item, RELAY_ROOM, open);
	list_add_tail(&open->list, &opens);
	mutex_unlock(&lock);

	call.item.event.argument = file->f_flags;
	result = min_t(s64, ask_holder(open, &call, RELAY_OPEN), 0);
	if (result) {
		mutex_lock(&lock);
		list_del(&open->list);
		drop_incoming(open);
		/* A caller that was killed leaves a holder behind that may believe it open. */
		if (!call.done)
			queue_item(&open->close_item);
		kref_put(&open->refs, free_open);
		mutex_unlock(&lock);
		return result;
	}
	file->private_data = open;
	return stream_open(inode, file);
}

/* The control node. */

static int control_open(struct inode *inode, struct file *file)
{
	int result = 0;

	mutex_lock(&lock);
	if (held)
		result = -EBUSY;
	held = true;
	mutex_unlock(&lock);
	return result ? result : stream_open(inode, file);
}

static int control_release(struct inode *inode, struct file *file)
{
	struct relay_item *item, *next;
	struct relay_call *call;
	struct relay_open *open;

	mutex_lock(&lock);
	held = false;
	list_for_each_entry_safe(item, next, &items, list)
		unqueue_item(item);
	list_for_each_entry(call, &calls, list) {
		if (call->done)
			continue;
		call->result = -ENODEV;
		WRITE_ONCE(call->done, true);
		wake_up_all(&call->wait);
	}
	list_for_each_entry(open, &opens, list) {
		open->dead = true;
		wake_up_all(&open->wait);
	}
	mutex_unlock(&lock);
	return 0;
}

/* The next event, whole or not at all. */
static ssize_t control_read(struct file *file, char __user *buffer, size_t size, loff_t *position)
{
	struct relay_item *item;
	ssize_t result = -EMSGSIZE;

	mutex_lock(&lock);
	while (list_empty(&items)) {
		mutex_unlock(&lock);
		if (file->f_flags & O_NONBLOCK)
			return -EAGAIN;
		result = wait_event_interruptible(holder_wait, !list_empty(&items));
		if (result)
			return result;
		mutex_lock(&lock);
	}
	item = list_first_entry(&items, struct relay_item, list);
	if (size >= sizeof(item->event) + item->event.length) {
		size = sizeof(item->event) + item->event.length;
		if (copy_to_user(buffer, &item->event, sizeof(item->event)) ||
		    copy_to_user(buffer + sizeof(item->event), item->data, item->event.length)) {
			result = -EFAULT;
		} else {
			result = size;
			unqueue_item(item);
		}
	} else {
		result = -EMSGSIZE;
	}
	mutex_unlock(&lock);
	return result;
}

static __poll_t control_poll(struct file *file, poll_table *table)
{
	__poll_t events;

	poll_wait(file, &holder_wait, table);
	mutex_lock(&lock);
	events = list_empty(&items) ? 0 : EPOLLIN | EPOLLRDNORM;
	mutex_unlock(&lock);
	return events;
}

static long do_answer(const struct relay_answer *answer)
{
	struct relay_call *call;
	void *data = NULL;
	long result = 0;

	if (answer->length > 0) {
		if (answer->length > _IOC_SIZEMASK)
			return -EMSGSIZE;
		data = vmemdup_user(u64_to_user_ptr(answer->data), answer->length);
		if (IS_ERR(data))
			return PTR_ERR(data);
	}
	mutex_lock(&lock);
	call = find_call(answer->call);
	if (!call || call->done) {
		result = -ENOENT;
	} else if (answer->length > call->out_size) {
		result = -EMSGSIZE;
	} else {
		if (data)
			memcpy(call->out, data, answer->length);
		call->out_length = answer->length;
		call->result = answer->result;
		WRITE_ONCE(call->done, true);
		wake_up_all(&call->wait);
	}
	mutex_unlock(&lock);
	kvfree(data);
	return result;
}

static long do_deliver(const struct relay_packet *packet)
{
	struct relay_message *message;
	struct relay_open *open;
	long result = 0;

	if (packet->length > RELAY_MAX_PACKET)
		return -EMSGSIZE;
	message = kmalloc(struct_size(message, data, packet->length), GFP_KERNEL_ACCOUNT);
	if (!message)
		return -ENOMEM;
	message->length = packet->length;
	if (copy_from_user(message->data, u64_to_user_ptr(packet->data), packet->length)) {
		kfree(message);
		return -EFAULT;
	}
	mutex_lock(&lock);
	open = find_open(packet->open);
	if (!open || open->dead) {
		result = -ENOENT;
	} else if (open->incoming_bytes + cost(packet->length) > RELAY_MAX_QUEUED) {
		open->refused = true;
		result = -EAGAIN;
	} else {
		list_add_tail(&message->list, &open->incoming);
		open->incoming_bytes += cost(message->length);
		wake_up_all(&open->wait);
	}
	mutex_unlock(&lock);
	if (result)
		kfree(message);
	return result;
}

static long do_flush(u64 id)
{
	struct relay_open *open;

	mutex_lock(&lock);
	open = find_open(id);
	if (open) {
		drop_incoming(open);
		open->refused = false;
	}
	mutex_unlock(&lock);
	return open ? 0 : -ENOENT;
}

static long do_hangup(const struct relay_hangup *order)
{
	struct relay_open *open;

	mutex_lock(&lock);
	open = find_open(order->open);
	if (open) {
		open->hung = order->raised;
		wake_up_all(&open->wait);
	}
	mutex_unlock(&lock);
	return open ? 0 : -ENOENT;
}

/*
 * The caller waits in its request meanwhile, unless it was killed; then its memory is going anyway.
 */
static long do_copy(const struct relay_copy *copy)
{
	void __user *user = u64_to_user_ptr(copy->data);
	struct task_struct *task = NULL;
	struct relay_call *call;
	long result = -ENOMEM;
	void *bounce;
	int done;

	if (copy->length > RELAY_MAX_PACKET)
		return -EMSGSIZE;
	bounce = kvmalloc(max(copy->length, 1u), GFP_KERNEL_ACCOUNT);
	if (!bounce)
		return -ENOMEM;
	if (copy->to_caller && copy_from_user(bounce, user, copy->length)) {
		result = -EFAULT;
		goto done;
	}
	mutex_lock(&lock);
	call = find_call(copy->call);
	if (call && !call->done)
		task = get_task_struct(call->task);
	mutex_unlock(&lock);
	if (!task) {
		result = -ENOENT;
		goto done;
	}
	done = access_process_vm(task, copy->address, bounce, copy->length,
				 copy->to_caller ? FOLL_WRITE : 0);
	put_task_struct(task);
	result = done == copy->length ? 0 : -EFAULT;
	if (!result && !copy->to_caller && copy_to_user(user, bounce, copy->length))
		result = -EFAULT;
done:
	kvfree(bounce);
	return result;
}

static long control_ioctl(struct file *file, unsigned int request, unsigned long argument)
{
	union {
		struct relay_answer answer;
		struct relay_packet packet;
		struct relay_hangup hangup;
		struct relay_copy copy;
		struct relay_panic panic;
		u64 open;
	} order;

	if (_IOC_SIZE(request) > sizeof(order))
		return -ENOTTY;
	if (copy_from_user(&order, (void __user *)argument, _IOC_SIZE(request)))
		return -EFAULT;
	switch (request) {
	case RELAY_DO_ANSWER:
		return do_answer(&order.answer);
	case RELAY_DO_DELIVER:
		return do_deliver(&order.packet);
	case RELAY_DO_FLUSH:
		return do_flush(order.open);
	case RELAY_DO_HANGUP:
		return do_hangup(&order.hangup);
	case RELAY_DO_COPY:
		return do_copy(&order.copy);
	case RELAY_DO_PANIC:
		order.panic.reason[sizeof(order.panic.reason) - 1] = '\0';
		panic("%s", order.panic.reason);
	default:
		return -ENOTTY;
	}
}

static const struct file_operations control_operations = {
	.owner = THIS_MODULE,
	.open = control_open,
	.release = control_release,
	.read = control_read,
	.poll = control_poll,
	.unlocked_ioctl = control_ioctl,
	.llseek = no_llseek,
};

static struct miscdevice control = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = RELAY_CONTROL_NAME,
	.fops = &control_operations,
	.mode = 0600,
};

static int __init relay_init(void)
{
	struct miscdevice *const devices[] = { &nodes[RELAY_NODE_BOOT], &nodes[RELAY_NODE_DUMP],
					       &control };
	int i, result;

	nodes[RELAY_NODE_BOOT].name = boot;
	nodes[RELAY_NODE_DUMP].name = dump;
	for (i = 0; i < ARRAY_SIZE(devices); i++) {
		result = misc_register(devices[i]);
		if (result) {
			while (i-- > 0)
				misc_deregister(devices[i]);
			return result;
		}
	}
	return 0;
}

static void __exit relay_exit(void)
{
	misc_deregister(&control);
	misc_deregister(&nodes[RELAY_NODE_DUMP]);
	misc_deregister(&nodes[RELAY_NODE_BOOT]);
}

module_init(relay_init);
module_exit(relay_exit);
MODULE_DESCRIPTION("Relays a modem's boot and dump nodes to a process");
MODULE_LICENSE("GPL");
