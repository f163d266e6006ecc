// SPDX-License-Identifier: ISC
// SPDX-License-Identifier: GPL-2.0
/*
 * The gateway's driver as the library sees it, for tests: the device /dev/brovan with its one
 * request, and the kernel's side of netlink protocol 26.
 *
 * Operations, by the record's name:
 *   upper     makes the data upper case
 *   result5   fills the data with 0xa5, result 5
 *   reject    fails with EPERM
 *   nl-send   sends a message: type in the first 2 bytes of the data, then the payload
 *   nl-burst  sends n messages of a type (16-bit type, 32-bit n); payload: 32-bit number from 0
 * Anything else answers 0xfffffffe. Request 1 reads back the last record that request 0 brought,
 * after the flags of the opening. What netlink did is in the module's parameters.
 */
#include <linux/delay.h>
#include <linux/fs.h>
#include <linux/init.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/netlink.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>
#include <net/net_namespace.h>
#include <net/netlink.h>
#include <net/sock.h>

#define PROTOCOL 26
#define LARGEST (2u << 20)

struct record {
	char name[256];
	__u32 length;
	__u32 result;
	__u8 data[];
};

/* When set, request 0 itself returns 7. */
static bool odd_result;
module_param(odd_result, bool, 0644);

/*
 * Of the last registration message: port id, length, and whether all its other bytes were zero.
 * And how many messages the socket had no room for.
 */
static uint port, registration_length, registration_zero, dropped;
module_param(port, uint, 0444);
module_param(registration_length, uint, 0444);
module_param(registration_zero, uint, 0444);
module_param(dropped, uint, 0444);

static struct sock *netlink;
static struct record *last;
static u32 last_flags;

static int send_message(u16 type, const void *data, u32 length)
{
	struct sk_buff *skb = nlmsg_new(length, GFP_KERNEL);
	struct nlmsghdr *header;
	int result;

	if (!skb)
		return -ENOMEM;
	header = nlmsg_put(skb, 0, 0, type, length, 0);
	if (!header) {
		kfree_skb(skb);
		return -EMSGSIZE;
	}
	header->nlmsg_len = NLMSG_HDRLEN + length;
	memcpy(nlmsg_data(header), data, length);
	result = netlink_unicast(netlink, skb, port, MSG_DONTWAIT);
	if (result == -EAGAIN)
		dropped++;
	return result;
}

/* Pauses now and then: the receiver shares the processor. */
static u32 send_burst(u16 type, u32 count)
{
	u32 i, lost = 0;

	for (i = 0; i < count; i++) {
		if (send_message(type, &i, sizeof(i)) < 0)
			lost++;
		if (i % 64 == 63)
			usleep_range(500, 1000);
	}
	return lost;
}

static void take_registration(struct sk_buff *skb)
{
	struct nlmsghdr *header = nlmsg_hdr(skb);
	const u8 *bytes = (const u8 *)header;
	u32 i;

	port = header->nlmsg_pid;
	registration_length = header->nlmsg_len;
	registration_zero = skb->len == header->nlmsg_len;
	for (i = 4; i < skb->len; i++) {
		if ((i < 12 || i >= 16) && bytes[i] != 0)
			registration_zero = 0;
	}
}

static long carry_out(struct record *r)
{
	u32 i, count;
	u16 type;

	r->result = 0;
	if (!strcmp(r->name, "upper")) {
		for (i = 0; i < r->length; i++) {
			if (r->data[i] >= 'a' && r->data[i] <= 'z')
				r->data[i] -= 'a' - 'A';
		}
	} else if (!strcmp(r->name, "result5")) {
		memset(r->data, 0xa5, r->length);
		r->result = 5;
	} else if (!strcmp(r->name, "reject")) {
		return -EPERM;
	} else if (!strcmp(r->name, "nl-send") && r->length >= 2) {
		memcpy(&type, r->data, 2);
		r->result = send_message(type, r->data + 2, r->length - 2);
	} else if (!strcmp(r->name, "nl-burst") && r->length >= 6) {
		memcpy(&type, r->data, 2);
		memcpy(&count, r->data + 2, 4);
		r->result = send_burst(type, count);
	} else {
		r->result = 0xfffffffe;
	}
	return odd_result ? 7 : 0;
}

/* Keeps the record for request 1. */
static void remember(const struct file *file, const struct record *r)
{
	size_t size = sizeof(*r) + r->length;

	vfree(last);
	last = vmalloc(size);
	if (last)
		memcpy(last, r, size);
	last_flags = file->f_flags;
}

static long take_record(const struct file *file, void __user *argument)
{
	struct record head, *r;
	long result;

	if (copy_from_user(&head, argument, sizeof(head)))
		return -EFAULT;
	if (head.length > LARGEST)
		return -EINVAL;
	r = vmalloc(sizeof(*r) + head.length);
	if (!r)
		return -ENOMEM;
	result = -EFAULT;
	if (!copy_from_user(r, argument, sizeof(*r) + head.length)) {
		r->length = head.length;
		remember(file, r);
		r->name[sizeof(r->name) - 1] = 0;
		result = carry_out(r);
		if (result >= 0 && copy_to_user(argument, r, sizeof(*r) + r->length))
			result = -EFAULT;
	}
	vfree(r);
	return result;
}

static long give_last(void __user *argument)
{
	if (!last)
		return -ENODATA;
	if (copy_to_user(argument, &last_flags, sizeof(last_flags)) ||
	    copy_to_user(argument + sizeof(last_flags), last, sizeof(*last) + last->length))
		return -EFAULT;
	return 0;
}

static long gw_ioctl(struct file *file, unsigned int request, unsigned long argument)
{
	switch (request) {
	case 0:
		return take_record(file, (void __user *)argument);
	case 1:
		return give_last((void __user *)argument);
	default:
		return -ENOTTY;
	}
}

static const struct file_operations operations = {
	.owner = THIS_MODULE,
	.unlocked_ioctl = gw_ioctl,
	.llseek = noop_llseek,
};

static struct miscdevice device = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = "brovan",
	.fops = &operations,
	.mode = 0600,
};

static int __init gw_init(void)
{
	struct netlink_kernel_cfg config = { .input = take_registration };
	int result;

	netlink = netlink_kernel_create(&init_net, PROTOCOL, &config);
	if (!netlink)
		return -ENOMEM;
	result = misc_register(&device);
	if (result)
		netlink_kernel_release(netlink);
	return result;
}

static void __exit gw_exit(void)
{
	misc_deregister(&device);
	netlink_kernel_release(netlink);
	vfree(last);
}

module_init(gw_init);
module_exit(gw_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("test peer of the library: driver device and kernel events");
