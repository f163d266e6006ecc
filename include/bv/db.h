/* SPDX-License-Identifier: ISC */
/**
 * @file db.h
 * The configuration database: a service's settings as named families of parameters.
 *
 * A template file (JSON, under /etc/template) defines a family and lists its parameters: name,
 * type, bytes in the image, default text. A family has any number of numbered instances. Each is a
 * packed memory image: the parameters one after the other in template order, without padding,
 * integers in the machine's order. Callers copy whole images in and out, so a service's structure
 * for a family must be packed and have exactly the layout of the template. Three lists of
 * registered names decide in which file a family is stored:
 *
 *     list     | data file                     | written by
 *     ---------|-------------------------------|-----------------
 *     user     | /config/work/userdata.json    | bv_db_commit()
 *     private  | /config/work/privdata.json    | bv_db_private()
 *     factory  | /config/factory/factory.json  | bv_db_factory()
 *
 * A service calls bv_db_init() once (bv_libraries_init() does), registers its families, calls
 * bv_db_start() to load templates and data files, and bv_db_ready() to let commits write. After
 * that it reads and writes instances by family name.
 *
 * True of every function here:
 *
 * - A process has one database without a lock, for one thread. A service that uses it from several
 *   threads must serialise the calls. Processes share only the files.
 * - `name` is a family's name, `family` a record from bv_db_hash_find(), `list` one of the
 *   manager's three registration lists. No call keeps these pointers.
 * - The status is 0 for success. A failure leaves the database and all outputs unchanged, unless
 *   the function says otherwise. BV_ERR_MEMORY means that memory is short.
 * - A null argument makes the function fail, never crash. Unless it says otherwise, a null name is
 *   an unknown family, a null place for a number is a missing instance, and the result is -1 for
 *   any other argument. With a null image or buffer the copy fails.
 * - Instance numbers are compared as signed 32-bit numbers; unsigned arguments have the same bits.
 *   An instance may have any 32-bit number.
 * - Names are compared in full, up to 1023 characters. A longer name is not cut: it counts as the
 *   empty name, so all longer names mean one family.
 * - Nothing is printed, except by the dumps, and by the allocator when memory is short.
 * - The process aborts when a counter or sum would overflow (instance count, highest number, image
 *   size), since going on would corrupt the settings.
 * - Templates and data files may hold anything: conversions never read or write outside an image of
 *   the database, whatever lengths and types a template claims. A caller's own image, as
 *   bv_db_user_fill_frommem() takes it, has no size that could be checked.
 * - Callers may read the records. A record that a service made and put into the table itself is a
 *   family like the others, and has no instances while its inst_list is zero.
 */
#ifndef BV_DB_H
#define BV_DB_H

#include <bv/base.h>
#include <bv/status.h>

#ifdef __cplusplus
extern "C" {
#endif

struct bv_hash;

/** The manager: everything in the database. 40 bytes where pointers have 4. */
typedef struct bv_db_mng {
    bv_list_head user_list;    /**< bv_db_reg records of user families, in registration order */
    bv_list_head private_list; /**< bv_db_reg records of private families */
    bv_list_head factory_list; /**< bv_db_reg records of factory families */
    bv_list_head family_list;  /**< every bv_db_family in the table, in creation order */
    struct bv_hash *table;     /**< the family records, keyed by name padded with zeros to 1024 */
    uint32_t ready;            /**< 1, so that commits write, after bv_db_ready(); else 0 */
} bv_db_mng;

/** One registered name; never freed. 1032 bytes where pointers have 4. */
typedef struct bv_db_reg {
    bv_list_head link; /**< member of one of the manager's three lists */
    char name[1024];   /**< the family name, which is also the template's file name */
} bv_db_reg;

/**
 * One parameter of a family. 3084 bytes.
 *
 * A descriptor belongs to the family, not to an instance: its value is the text that the last
 * conversion, load or write of any instance left there. A caller may set selected and value; the
 * rest comes from the template.
 *
 * The type, not len, decides how many bytes a conversion reads or stores: 1 for char and uchar, 2
 * for short and ushort, 4 for int, uint and ip, 6 for mac. Only a string is cut to its len when it
 * is stored. So an "int" with a len of 2 stores 4 bytes, and the next parameter overwrites two of
 * them: the int is read back with that parameter's bytes as its upper half. As the last parameter
 * it loses them and is read back without a sign. Give every type its width as len.
 */
typedef struct bv_db_para {
    uint32_t valid; /**< 1 when the template's element was complete. The first 0 ends every walk;
                         an incomplete last element may leave parts in the rest of its slot */
    uint32_t
        selected;     /**< 1: converted by mode 1 of bv_db_user_fill_tomem(); only callers set it */
    int32_t len;      /**< bytes from its place to the next one's, below 1024; may be negative */
    char name[1024];  /**< its key in the data files */
    char type[1024];  /**< string char uchar short ushort int uint mac ip, or unknown */
    char value[1024]; /**< its text: first the default, later what was last read or converted */
} bv_db_para;

/** One numbered instance of a family. 16 bytes where pointers have 4. */
typedef struct bv_db_inst {
    bv_list_head link; /**< member of the family's inst_list */
    int32_t number;    /**< any 32-bit number */
    uint8_t *image;    /**< the values; null when the family's image size is 0 or negative */
} bv_db_inst;

/** One family. 3116 bytes where pointers have 4. */
typedef struct bv_db_family {
    int32_t inst_count;     /**< instances in inst_list */
    int32_t inst_max;       /**< highest instance number, at least 1; 0 in a new family */
    int32_t image_size;     /**< bytes of one image: the sum of the valid parameters' len */
    int32_t para_count;     /**< elements in the template's "para", complete or not */
    char name[1024];        /**< the family name */
    char getfunc[1024];     /**< the template's "getfunc", for callers only */
    char setfunc[1024];     /**< the template's "setfunc", for callers only */
    bv_list_head inst_list; /**< bv_db_inst records, in the order of adding */
    bv_list_head link;      /**< member of the manager's family_list */
    bv_db_para *para;       /**< para_count descriptors, or null */
    uint8_t *default_image; /**< from the template's values, never changed; or null */
    uint8_t *working_image; /**< the conversions' own image; or null */
} bv_db_family;

/** The database of this process. Read it freely; change it only through the calls below. */
extern BV_API bv_db_mng g_st_db_mng;

/**
 * Makes the database empty: no registrations, no families, not ready.
 *
 * @retval BV_OK          ready for registrations
 * @retval BV_ERR_MEMORY  no memory for the family table: nothing can be added
 *
 * After a second call everything from before is gone, and its memory leaks.
 */
BV_API int32_t bv_db_init(void);

/**
 * Registers a family of user settings, kept in /config/work/userdata.json.
 *
 * @param name  the template: a path, or the name of a file under /etc/template; also the family's
 *              name. Copied. It must be trusted text: it goes unquoted into a shell command and
 *              unescaped into the data file
 *
 * @retval BV_OK          registered, after the earlier ones
 * @retval BV_ERR_EXISTS  the name is in this list already; it may be in another list too. It is
 *                        compared as given: a name that is too long is never found
 * @retval BV_ERR_MEMORY  no memory for the record
 * @retval BV_ERR_FAILED  name is null
 *
 * The next bv_db_start(), bv_db_template() or bv_db_restore() reads the template. A name in several
 * lists is one family: its template is read once, and it is written to each list's file.
 */
BV_API int32_t bv_db_reg_user(const char *name);

/** As bv_db_reg_user(), for private settings, kept in /config/work/privdata.json. */
BV_API int32_t bv_db_reg_private(const char *name);

/** As bv_db_reg_user(), for factory settings, kept in /config/factory/factory.json. */
BV_API int32_t bv_db_reg_factory(const char *name);

/**
 * Removes all families with their instances; registrations stay.
 *
 * @return 0
 *
 * Family, parameter and instance pointers are invalid afterwards. Default images are never freed,
 * on purpose: every reload leaks one for each family.
 */
BV_API int32_t bv_db_hash_free(void);

/**
 * Finds a family.
 *
 * @param name  its name
 * @return its record, which is the database's and valid until bv_db_hash_free(), with which every
 *         reload begins; null if unknown
 */
BV_API bv_db_family *bv_db_hash_find(const char *name);

/**
 * Adds an empty family: no parameters, no instances.
 *
 * @param name  its name; copied
 * @return the new record, which is the database's; null if the name exists (its record does not
 *         change), if 2048 families exist, or if memory is short
 */
BV_API bv_db_family *bv_db_hash_add(const char *name);

/**
 * Adds every family of a registration list that does not exist yet and reads its template.
 *
 * @param list  &g_st_db_mng.user_list, private_list or factory_list
 * @return 0; a family whose template cannot be read exists without parameters
 */
BV_API int32_t bv_db_template_read(bv_list_head *list);

/**
 * Reads one template into a family.
 *
 * @param name    a path that exists (relative to the current directory if not absolute), or else
 *                the name of a file anywhere under /etc/template, found by running find
 * @param family  the record to fill: parameters, working and default image. The old ones are
 *                removed first. If the image size stays the same, the instances stay with their
 *                bytes, which mean something else if the template now arranges them in another way.
 *                If it changes, the instances are removed, since their images would not fit
 *
 * @retval BV_OK          read; elements lacking a key or with a len of 1024 or more are skipped
 * @retval BV_ERR_FAILED  not found, found in several places, not JSON, no array "para", more than
 *                        425 elements (they share one allocation), no memory for an image, or an
 *                        argument is null
 * @retval BV_ERR_MEMORY  no memory for the descriptors
 * @retval BV_ERR_NO_FILE  the output of find cannot be captured
 *
 * After a failure the family has no parameters and image size 0, unless it had parameters before
 * and the new template was not found or had no array "para". Function names that were read stay.
 */
BV_API int32_t bv_db_template_read_single(const char *name, bv_db_family *family);

/**
 * Converts an image to text, in the descriptors' values.
 *
 * @param image  the packed parameters, at any alignment; null does nothing
 * @param count  descriptors in the table; the first invalid one ends the conversion
 * @param table  the descriptors; the values of known types are replaced, others stay
 * @return 0
 *
 * The image's size is not known, and len does not limit what is read: each type is read in its own
 * width, and a string up to the first NUL within 1024 bytes. A string without one becomes empty. So
 * the caller provides every byte that the types read, even after the last parameter: reading
 * continues past the len of a string that fills it without a NUL. Do not pass images of the
 * database, unless the template gives every type its width and every text its NUL. Bytes in front
 * of the image, where negative lengths may lead, read as 0.
 */
BV_API int32_t bv_db_user_fill_frommem(const void *image, int32_t count, bv_db_para *table);

/**
 * Converts the descriptors' values into the family's working image.
 *
 * @param family  the family; without descriptors or a working image, or with null, nothing happens
 * @param mode    1: only descriptors whose selected is 1; any other number: all
 * @return 0
 *
 * Integers are decimal text modulo 2^32, and 0 for text that is not a number. A type stores its own
 * width, not len, but nothing outside the image's allocation (the image size rounded up to 32, or
 * the sum of the valid len when the image size is 0). A string is cut to len - 1 characters; the
 * bytes after its NUL do not change. An invalid "ip" is 0.0.0.0.
 */
BV_API int32_t bv_db_user_fill_tomem(bv_db_family *family, int32_t mode);

/**
 * Writes the data file of a registration list.
 *
 * @param list  the families to write
 * @param path  the file; created with mode 0600 if it is missing
 *
 * @retval BV_OK             written, as far as the disk had room
 * @retval BV_ERR_WRITE_OPEN path cannot be opened for writing, or an argument is null
 *
 * The file is rewritten in place, without a temporary file: after a power cut or on a full disk
 * only its beginning is there, which cannot be loaded. A full disk is not reported. The settings in
 * memory are not affected, so a later call repairs the file. The text takes 8 KiB of stack and no
 * other memory.
 *
 * Names and values are not escaped: a quote, a backslash or a control character makes the whole
 * file unreadable. A family without instances is written as instance 1 with its defaults.
 * Afterwards the descriptors hold the values of the last instance written, and a load uses these
 * for a parameter that the file lacks.
 */
BV_API int32_t bv_db_user_write(bv_list_head *list, const char *path);

/**
 * Loads a data file into the families of a registration list.
 *
 * @param list  the families to load
 * @param path  the file
 *
 * @retval BV_OK          loaded; elements with missing or wrong parts are skipped
 * @retval BV_ERR_FAILED  path is missing or not JSON, or an argument is null: no instance is made
 *
 * Families with an image size of 0 are skipped. A family that the file lacks gets an instance 1
 * from its working image, unless it has one. A parameter that an element lacks gets the text that
 * it had in the element before (at first the template's default); services rely on that. An
 * existing instance is overwritten. When memory is short, elements are left out and the result is
 * still 0.
 *
 * All elements go through one working image: after the NUL of a loaded string there may be the end
 * of a longer text from an earlier element or from the defaults. Do not compare or hash images as
 * bytes, and do not pass these bytes on.
 */
BV_API int32_t bv_db_user_read(bv_list_head *list, const char *path);

/**
 * Finds an instance of a family by walking its list.
 *
 * @param family  whose instances to search
 * @param inst    the number
 * @return the first one of that number, which stays the family's; null if there is none
 */
BV_API bv_db_inst *bv_db_data_get_inst(bv_db_family *family, int32_t inst);

/**
 * Finds the first instance in list order.
 *
 * @param family  whose instances to walk
 * @param inst    gets its number
 * @return the instance, which stays the family's; null if there is none
 */
BV_API bv_db_inst *bv_db_data_get_inst_first(bv_db_family *family, int32_t *inst);

/**
 * Finds the instance after another one in list order, which is the order of adding.
 *
 * @param family  whose instances to walk
 * @param prev    number of the other one; if several have it, the first counts
 * @param inst    gets the number of the instance found
 * @return the instance, which stays the family's; null if prev is missing or last
 */
BV_API bv_db_inst *bv_db_data_get_inst_next(bv_db_family *family, int32_t prev, int32_t *inst);

/**
 * Finds the highest instance number by walking the list.
 *
 * @param family  whose instances to walk
 * @return the highest number, or 1 if that is below 1, the list is empty or family is null
 */
BV_API int32_t bv_db_data_get_inst_max(bv_db_family *family);

/**
 * Copies an instance's image out.
 *
 * @param family    the instance's family
 * @param instance  one of its instances
 * @param buf       gets the image
 * @param buflen    bytes in buf. With less than the image size all of them are cleared and the copy
 *                  fails; with more the rest of buf is unchanged; above 0x7fffffff all of it is
 *                  unchanged and the copy fails
 * @return 0, or the status of the bounded copy (bv_os_memcpy()); an image size of 0 or less
 *         copies nothing and is 0
 */
BV_API int32_t bv_db_data_get_context(bv_db_family *family, bv_db_inst *instance, void *buf,
                                      uint32_t buflen);

/**
 * Copies into an instance's image.
 *
 * @param family    the instance's family
 * @param instance  one of its instances
 * @param buf       the new beginning of the image; null clears the image and fails
 * @param buflen    bytes in buf. With more than the image size the image is cleared and the copy
 *                  fails; with less the rest of the image is unchanged
 * @return 0, or the status of the bounded copy (bv_os_memcpy()); an image size of 0 or less
 *         copies nothing and is 0
 */
BV_API int32_t bv_db_data_set_context(bv_db_family *family, bv_db_inst *instance, const void *buf,
                                      uint32_t buflen);

/**
 * Adds an instance after the others, without checking whether the number is in use.
 *
 * @param family  gets the instance
 * @param buf     the image; copied
 * @param buflen  bytes in buf. With more than the image size, or a null buf, the image is all zero;
 *                with less its rest is zero
 * @param inst    its number
 *
 * @retval BV_OK          added, even if the copy failed
 * @retval BV_ERR_MEMORY  memory is short
 */
BV_API int32_t bv_db_data_add_inst(bv_db_family *family, const void *buf, uint32_t buflen,
                                   int32_t inst);

/**
 * Removes an instance from its family and frees it.
 *
 * @param family    the instance's family
 * @param instance  one of its instances; invalid afterwards
 * @return 0
 */
BV_API int32_t bv_db_data_del_inst(bv_db_family *family, bv_db_inst *instance);

/**
 * Frees every instance of a family. Its highest number is 1 afterwards.
 *
 * @param family  whose instances to free
 * @return 0
 */
BV_API int32_t bv_db_data_free(bv_db_family *family);

/**
 * Adds an instance.
 *
 * @param name    its family's name
 * @param buf     its image; copied
 * @param buflen  bytes in buf. Pass the whole image: with more, or a null buf, the new image is all
 *                zero; with less its rest is zero. The result is 0 in both cases
 * @param inst    its number
 *
 * @retval BV_OK             added after the others
 * @retval BV_ERR_NO_FAMILY  no such family
 * @retval BV_ERR_EXISTS     the number is in use
 * @retval BV_ERR_MEMORY     memory is short
 */
BV_API int32_t bv_db_inst_add(const char *name, const void *buf, uint32_t buflen, uint32_t inst);

/**
 * Deletes an instance.
 *
 * @param name  its family's name
 * @param inst  its number
 *
 * @retval BV_OK               deleted
 * @retval BV_ERR_NO_FAMILY    no such family
 * @retval BV_ERR_NO_INSTANCE  no such instance
 */
BV_API int32_t bv_db_inst_del(const char *name, uint32_t inst);

/**
 * Proposes a number for a new instance: the highest number plus 1. Nothing is added or reserved.
 *
 * @param name  the family's name
 * @param out   gets the number
 *
 * @retval BV_OK             *out is 1 in a new family, at least 2 after any add or delete
 * @retval BV_ERR_NO_FAMILY  no such family, or out is null
 *
 * Aborts when the highest number is 2147483647.
 */
BV_API int32_t bv_db_inst_getnew(const char *name, uint32_t *out);

/**
 * Counts the instances of a family.
 *
 * @param name  the family's name
 * @return the number of instances; 0 if the family does not exist
 */
BV_API int32_t bv_db_inst_getnum(const char *name);

/**
 * Reads an instance.
 *
 * @param name    its family's name
 * @param buf     gets the image; null copies nothing
 * @param buflen  bytes in buf. Pass at least the image size: with less all of buf is cleared, and
 *                the result is still 0. With more the rest of buf is unchanged; above 0x7fffffff
 *                all of it is
 * @param inst    its number; 1 reads the template's defaults if instance 1 does not exist
 *
 * @retval BV_OK               read; nothing is copied for a family without parameters
 * @retval BV_ERR_NO_FAMILY    no such family
 * @retval BV_ERR_NO_INSTANCE  no such instance
 */
BV_API int32_t bv_db_read(const char *name, void *buf, uint32_t buflen, uint32_t inst);

/**
 * Reads the first instance in list order; the start of a walk over all of them.
 *
 * @param name         the family's name
 * @param buf, buflen  as for bv_db_read()
 * @param inst         gets its number
 *
 * @retval BV_OK               read
 * @retval BV_ERR_NO_FAMILY    no such family
 * @retval BV_ERR_NO_INSTANCE  the family has none
 */
BV_API int32_t bv_db_read_first(const char *name, void *buf, uint32_t buflen, uint32_t *inst);

/**
 * Reads the instance after another one in list order (the order of adding, not of numbers).
 *
 * @param name         the family's name
 * @param buf, buflen  as for bv_db_read()
 * @param prev         the number from the last call of the walk
 * @param inst         gets the number of the instance found; may be the same variable as prev
 *
 * @retval BV_OK               read
 * @retval BV_ERR_NO_FAMILY    no such family
 * @retval BV_ERR_NO_INSTANCE  prev is the last, or missing
 */
BV_API int32_t bv_db_read_next(const char *name, void *buf, uint32_t buflen, uint32_t prev,
                               uint32_t *inst);

/**
 * Overwrites an instance. It never makes one, not even instance 1.
 *
 * @param name    its family's name
 * @param buf     the image; copied
 * @param buflen  bytes in buf. Pass the whole image: with more, or a null buf, the image is all
 *                zero afterwards; with less its rest is unchanged. The result is 0 in both cases
 * @param inst    its number
 *
 * @retval BV_OK               overwritten
 * @retval BV_ERR_NO_FAMILY    no such family
 * @retval BV_ERR_NO_INSTANCE  no such instance: add it with bv_db_inst_add()
 */
BV_API int32_t bv_db_write(const char *name, const void *buf, uint32_t buflen, uint32_t inst);

/** Returns 1 after bv_db_ready(), else 0. */
BV_API int32_t bv_db_status(void);

/** Lets bv_db_commit() and bv_db_private() write from now on; returns 0. */
BV_API int32_t bv_db_ready(void);

/**
 * Writes the user families to /config/work/userdata.json, as bv_db_user_write() does. Before
 * bv_db_ready() nothing is written.
 *
 * @return as from bv_db_user_write(); 0 when nothing is written
 */
BV_API int32_t bv_db_commit(void);

/** As bv_db_commit(), for the private families and /config/work/privdata.json. */
BV_API int32_t bv_db_private(void);

/** As bv_db_commit(), for factory families and /config/factory/factory.json; needs no
 * bv_db_ready(). */
BV_API int32_t bv_db_factory(void);

/**
 * Resets everything to the templates' defaults: reads all templates again. No family has an
 * instance afterwards. No data file changes.
 *
 * @return 0
 */
BV_API int32_t bv_db_template(void);

/**
 * Returns to the factory state: loads the factory families from their file, and resets the user and
 * private families to their templates' defaults. The work files change only with the next commit,
 * which writes the defaults.
 *
 * @return 0
 */
BV_API int32_t bv_db_restore(void);

/**
 * Loads everything: the templates and the data file of the factory, the user and the private
 * families, in this order. A name in several lists belongs to the first of them. Families whose
 * data file is missing or damaged have no instances: instance 1 then reads as the defaults.
 *
 * @return 0
 */
BV_API int32_t bv_db_start(void);

/**
 * Runs a command from a message.
 *
 * @param msg  its first 32-bit word, at any alignment: 1 commit, 2 private, 3 factory, 4 template,
 *             5 restore, 6 start; 7, 8 and 9 print the factory, user and private families. Other
 *             words, and a null msg, do nothing
 * @return the result of the function called, otherwise 0
 */
BV_API int32_t bv_db_trigger(const uint32_t *msg);

#ifdef __cplusplus
}
#endif

#endif
