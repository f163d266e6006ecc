/*
 * Flash copy: writes a file to the start of a flash partition, with a progress bar.
 *
 *   flash_copy FILE PARTITION    PARTITION: a name of /proc/mtd, like rootfs
 *
 * Each block is erased, written, read back and compared: bv_mtd_erase() does not report an erase
 * that fails, so what is on the flash is the only proof. A copy that is broken off leaves the first
 * blocks new and the others old; start it again.
 *
 * Exit status: 0 the file is on the flash, 1 failed (the reason is printed), 2 wrong usage.
 */
#include <inttypes.h>
#include <stdio.h>

#include <bv/bv.h>

#define BAR_WIDTH 40

struct copy {
    FILE *file;
    const char *partition;
    uint32_t length;   /* bytes to copy */
    uint32_t block;    /* bytes erased at once */
    uint8_t *expected; /* one block of the file */
    uint8_t *found;    /* the same block, read back */
};

static int fail(const char *what, const char *why)
{
    fprintf(stderr, "\nflash_copy: %s: %s\n", what, why);
    return -1;
}

/* Draws the bar over the one before: "\r" goes back to the start of the line. */
static void show_progress(uint32_t done, uint32_t length)
{
    static const char full[] = "########################################";
    static const char rest[] = "........................................";
    int width = (int)((uint64_t)done * BAR_WIDTH / length);

    printf("\r[%.*s%.*s] %3u %%", width, full, BAR_WIDTH - width, rest,
           (unsigned)((uint64_t)done * 100 / length));
    fflush(stdout);
}

/* Copies the block at `offset`. Each call looks the partition up anew, so offsets and lengths are
 * all that has to be right; the last block is erased whole but written only as far as needed. */
static int copy_block(const struct copy *copy, uint32_t offset)
{
    uint32_t left = copy->length - offset;
    uint32_t length = left < copy->block ? left : copy->block;
    int32_t code;

    if (bv_os_fread(copy->expected, 1, length, copy->file) != length)
        return fail("the file", "became shorter");
    code = bv_mtd_erase(copy->partition, offset, copy->block);
    if (code != BV_OK)
        return fail("erasing", bv_status_text(code));
    code = bv_mtd_write(copy->partition, copy->expected, offset, length);
    if (code != BV_OK)
        return fail("writing", bv_status_text(code));
    code = bv_mtd_read(copy->partition, copy->found, offset, length);
    if (code != BV_OK)
        return fail("reading back", bv_status_text(code));
    if (bv_os_memcmp(copy->expected, copy->found, length) != 0)
        return fail("the flash", "does not hold what was written");
    return 0;
}

static int copy_all(const struct copy *copy)
{
    uint32_t offset;

    if (copy->expected == NULL || copy->found == NULL)
        return fail("two blocks of memory", bv_status_text(BV_ERR_MEMORY));
    show_progress(0, copy->length);
    for (offset = 0; offset < copy->length; offset += copy->block) {
        uint32_t done = copy->length - offset < copy->block ? copy->length : offset + copy->block;

        if (copy_block(copy, offset) != 0)
            return -1;
        show_progress(done, copy->length);
    }
    printf("\nflash_copy: %" PRIu32 " bytes are on %s\n", copy->length, copy->partition);
    return 0;
}

/* Looks before anything is erased: is the partition there, and does the file fit? */
static int prepare(struct copy *copy, const char *path)
{
    struct mtd_info_user info;
    int32_t size = bv_get_filesize(path);
    int32_t code = bv_mtd_get_info(copy->partition, &info);

    if (code != BV_OK)
        return fail("no flash partition of that name that can be written", bv_status_text(code));
    if (size <= 0)
        return fail(path, size < 0 ? bv_status_text(size) : "nothing in it");
    if ((uint32_t)size > info.size)
        return fail(path, "larger than the partition");
    copy->length = (uint32_t)size;
    copy->block = info.erasesize;
    return 0;
}

int main(int argc, char **argv)
{
    struct copy copy;
    int result;

    if (argc != 3) {
        fputs("usage: flash_copy FILE PARTITION\n", stderr);
        return 2;
    }
    copy.partition = argv[2];
    copy.file = bv_os_fopen(argv[1], "rb");
    if (copy.file == NULL) {
        perror(argv[1]);
        return 1;
    }
    result = prepare(&copy, argv[1]);
    if (result == 0) {
        copy.expected = (uint8_t *)bv_os_malloc(copy.block);
        copy.found = (uint8_t *)bv_os_malloc(copy.block);
        result = copy_all(&copy);
        bv_os_free(copy.expected);
        bv_os_free(copy.found);
    }
    bv_os_fclose(copy.file);
    return result == 0 ? 0 : 1;
}
