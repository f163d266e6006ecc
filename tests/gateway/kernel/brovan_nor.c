// SPDX-License-Identifier: ISC
// SPDX-License-Identifier: GPL-2.0
/*
 * A NOR flash chip made of memory, for tests: writing only clears bits, erasing goes by whole
 * blocks, and faults come on demand. All that is above the chip (partitions, /proc/mtd, character
 * devices and their ioctls) is the kernel's own.
 *
 * Faults and counters are files below /sys/module/brovan_nor/parameters.
 */
#include <linux/err.h>
#include <linux/limits.h>
#include <linux/log2.h>
#include <linux/minmax.h>
#include <linux/module.h>
#include <linux/mtd/mtd.h>
#include <linux/mtd/partitions.h>
#include <linux/sizes.h>
#include <linux/vmalloc.h>

#define NOR_SIZE SZ_4M
#define NOR_BLOCK SZ_64K

/* Offset on the chip of the block in which every access of the kind fails; -1 for none. */
static int bad_read = -1, bad_write = -1, bad_erase = -1;
module_param(bad_read, int, 0644);
module_param(bad_write, int, 0644);
module_param(bad_erase, int, 0644);

/* How many of the next erasures fail. */
static uint erases_to_fail;
module_param(erases_to_fail, uint, 0644);

/* Bytes that may still be read or written before transfers end early. */
static uint room = UINT_MAX;
module_param(room, uint, 0644);

/* Requests that reached the chip, failed ones included; a test may set them to 0. */
static uint erases, reads, writes;
module_param(erases, uint, 0644);
module_param(reads, uint, 0644);
module_param(writes, uint, 0644);

static u8 *memory;

static bool hits(int bad, loff_t from, size_t length)
{
	return bad >= 0 && from < (loff_t)bad + NOR_BLOCK && from + length > bad;
}

static size_t take_room(size_t length)
{
	if (room == UINT_MAX)
		return length;
	length = min_t(size_t, length, room);
	room -= length;
	return length;
}

static int nor_read(struct mtd_info *mtd, loff_t from, size_t length, size_t *done, u_char *buf)
{
	reads++;
	if (hits(bad_read, from, length))
		return -EIO;
	*done = take_room(length);
	memcpy(buf, memory + from, *done);
	return 0;
}

static int nor_write(struct mtd_info *mtd, loff_t to, size_t length, size_t *done,
		     const u_char *buf)
{
	size_t i;

	writes++;
	if (hits(bad_write, to, length))
		return -EIO;
	*done = take_room(length);
	if (*done == 0)
		return -EIO; /* or the character device would try again for ever */
	for (i = 0; i < *done; i++)
		memory[to + i] &= buf[i];
	return 0;
}

static int nor_erase(struct mtd_info *mtd, struct erase_info *request)
{
	erases++;
	if (((u32)request->addr | (u32)request->len) & (NOR_BLOCK - 1))
		return -EINVAL;
	if (erases_to_fail > 0 || hits(bad_erase, request->addr, request->len)) {
		if (erases_to_fail > 0)
			erases_to_fail--;
		request->fail_addr = request->addr;
		return -EIO;
	}
	memset(memory + request->addr, 0xff, request->len);
	return 0;
}

static struct mtd_partition partitions[] = {
	{ .name = "config", .offset = 0, .size = SZ_512K },
	{ .name = "factory", .offset = MTDPART_OFS_APPEND, .size = SZ_64K, .mask_flags = MTD_WRITEABLE },
	{ .name = "crash", .offset = MTDPART_OFS_APPEND, .size = SZ_64K },
	{ .name = "rootfs", .offset = MTDPART_OFS_APPEND, .size = SZ_1M },
	{ .name = "rootfs_data", .offset = MTDPART_OFS_APPEND, .size = SZ_1M },
};

static struct mtd_info nor = {
	.name = "brovan-nor",
	.type = MTD_NORFLASH,
	.flags = MTD_CAP_NORFLASH,
	.size = NOR_SIZE,
	.erasesize = NOR_BLOCK,
	.writesize = 1,
	.writebufsize = 64,
	.owner = THIS_MODULE,
	._read = nor_read,
	._write = nor_write,
	._erase = nor_erase,
};

/*
 * The erase size that MEMGETINFO reports for every partition. The chip still erases in its own
 * blocks.
 */
static int set_reported_erase_size(const char *text, const struct kernel_param *param)
{
	uint size;
	size_t i;

	if (kstrtouint(text, 0, &size))
		return -EINVAL;
	for (i = 0; i < ARRAY_SIZE(partitions); i++) {
		struct mtd_info *part = get_mtd_device_nm(partitions[i].name);

		if (IS_ERR(part))
			return PTR_ERR(part);
		part->erasesize = size;
		part->erasesize_shift = is_power_of_2(size) ? ffs(size) - 1 : 0;
		part->erasesize_mask = (1 << part->erasesize_shift) - 1;
		put_mtd_device(part);
	}
	return 0;
}
static const struct kernel_param_ops reported_erase_size = { .set = set_reported_erase_size };
module_param_cb(reported_erase_size, &reported_erase_size, NULL, 0200);

static int __init nor_init(void)
{
	int result;

	memory = vmalloc(NOR_SIZE);
	if (!memory)
		return -ENOMEM;
	memset(memory, 0xff, NOR_SIZE);
	result = mtd_device_register(&nor, partitions, ARRAY_SIZE(partitions));
	if (result)
		vfree(memory);
	return result;
}

static void __exit nor_exit(void)
{
	mtd_device_unregister(&nor);
	vfree(memory);
}

module_init(nor_init);
module_exit(nor_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("test NOR flash with partitions and faults on demand");
