/**
 * @file db.h
 * The configuration database: a service's settings as named families of parameters.
 *
 * A family is defined by a template file (JSON, under /etc/template) that lists its parameters:
 * name, type, bytes in the image, default text. It holds any number of numbered instances, each a
 * packed memory image: the parameters back to back in template order, without padding, integers
 * in the machine's order. Callers copy images in and out whole, so the structure that a service
 * uses for a family must be packed and laid out exactly like its template. Three lists of
 * registered names decide where a family is kept:
 *
 *     list     | data file                     | written by
 *     ---------|-------------------------------|-----------------
 *     user     | /config/work/userdata.json    | bv_db_commit()
 *     private  | /config/work/privdata.json    | bv_db_private()
 *     factory  | /config/factory/factory.json  | bv_db_factory()
 *
 * A service calls bv_db_init() once (bv_libraries_init() does), registers its families, calls
 * bv_db_start() to load templates and data files, and bv_db_ready() to let commits write. From
 * then on it reads and writes instances by family name.
 *
 * True of every function here:
 *
 * - There is one database per process and no lock in it: it is meant for one thread. A service
 *   that uses it from several must serialise the calls itself. Processes share only the files.
 * - The status is 0 for success. BV_ERR_MEMORY (memory short) leaves the database as it was, and
 *   so do all other failures unless the function says otherwise. Outputs stay untouched then.
 * - A null argument ends in a failure of the function, never in a fault: an unknown family for a
 *   name, an absent instance for a place to store a number, otherwise -1, unless stated. A null
 *   image or buffer is a copy that fails.
 * - Instance numbers are compared as signed 32-bit numbers; unsigned arguments carry the same
 *   bits. Any 32-bit number may be an instance's.
 * - Names are compared in full up to 1023 characters. A longer one is not cut: it counts as the
 *   empty name, so that all of them mean one family.
 * - Nothing is printed, except by the dumps and by the allocator about refused memory.
 * - A counter or sum that would overflow (instance count, highest number, image size) aborts the
 *   process: going on would corrupt the settings.
 * - Templates and data files may hold anything: conversions never read or write outside an
 *   image of the database, whatever lengths and types a template claims. A caller's own image, as
 *   bv_db_user_fill_frommem() takes it, has no size to keep to.
 * - The records are there to be read. A record that a service made and put into the table itself
 *   is a family like the others, with no instances while its inst_list is zero.
 */
#ifndef BV_DB_H
#define BV_DB_H

#include <bv/base.h>
#include <bv/status.h>

#ifdef __cplusplus
extern "C" {
#endif

struct bv_hash;

/** The manager: everything the database holds. 40 bytes where pointers have 4. */
typedef struct bv_db_mng {
    bv_list_head user_list;    /**< bv_db_reg records of user families, in registration order */
    bv_list_head private_list; /**< bv_db_reg records of private families */
    bv_list_head factory_list; /**< bv_db_reg records of factory families */
    bv_list_head family_list;  /**< every bv_db_family in the table, in creation order */
    struct bv_hash *table;     /**< the family records, keyed by name padded with zeros to 1024 */
    uint32_t ready;            /**< 0 until bv_db_ready() sets 1: commits write */
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
 * conversion, load or write of any instance left there. A caller may set selected and value;
 * the rest is the template's.
 *
 * How many bytes a conversion reads or stores is up to the type, not to len (only a string is cut
 * to its len when it is stored): 1 for char and uchar, 2 for short and ushort, 4 for int, uint and
 * ip, 6 for mac. So an "int" with a len of 2 stores 4 bytes, of which the next parameter overwrites
 * two, and is read back with that parameter's bytes as its upper half; as the last parameter it
 * loses them and is read back without a sign. Give every type its width as len.
 */
typedef struct bv_db_para {
    uint32_t valid;    /**< 1 when the template's element was complete; the first 0 ends every walk,
                            whatever an incomplete last element left in the rest of its slot */
    uint32_t selected; /**< 1: taken by mode 1 of bv_db_user_fill_tomem(); only callers set it */
    int32_t len;       /**< bytes by which it moves the next one on, below 1024; may be negative */
    char name[1024];   /**< its key in the data files */
    char type[1024];   /**< string char uchar short ushort int uint mac ip, or unknown */
    char value[1024];  /**< its text: the default, later what was last read or converted */
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
    char getfunc[1024];     /**< the template's "getfunc", only kept for callers */
    char setfunc[1024];     /**< the template's "setfunc", only kept for callers */
    bv_list_head inst_list; /**< bv_db_inst records, in the order they were added */
    bv_list_head link;      /**< member of the manager's family_list */
    bv_db_para *para;       /**< para_count descriptors, or null */
    uint8_t *default_image; /**< from the template's values, never changed; or null */
    uint8_t *working_image; /**< scratch image of the conversions; or null */
} bv_db_family;

/** The database of this process. Read it freely; change it only through the calls below. */
extern BV_API bv_db_mng g_st_db_mng;

/**
 * Makes the database empty: no registrations, no families, not ready.
 *
 * @retval BV_OK          ready for registrations
 * @retval BV_ERR_MEMORY  the family table cannot be made: nothing can be added
 *
 * A second call forgets everything that the first one led to without releasing it.
 */
BV_API int32_t bv_db_init(void);

/**
 * Registers a family of user settings, kept in /config/work/userdata.json.
 *
 * @param name  the template: a path, or a file name looked for under /etc/template when a
 *              template is read; also the family's name. Copied. It is put into a shell command
 *              unquoted and comes unescaped into the data file, so it must be trusted text.
 *
 * @retval BV_OK          registered, after the earlier ones
 * @retval BV_ERR_EXISTS  the name stands in this list already; another list may have it too. It is
 *                        compared as given: one that is too long never stands there.
 * @retval BV_ERR_MEMORY  no memory for the record
 * @retval -1             name is null
 *
 * The template is read by the next bv_db_start(), bv_db_template() or bv_db_restore(). A name in
 * several lists is one family, read from its template once, and is written to each list's file.
 */
BV_API int32_t bv_db_reg_user(const char *name);

/** Registers a family of private settings; as bv_db_reg_user(), /config/work/privdata.json. */
BV_API int32_t bv_db_reg_private(const char *name);

/** Registers a family of factory settings; as bv_db_reg_user(), /config/factory/factory.json. */
BV_API int32_t bv_db_reg_factory(const char *name);

/**
 * Empties the database: all families with their instances go, registrations stay.
 *
 * @return 0
 *
 * Family, parameter and instance pointers are invalid afterwards. Default images are never
 * released, on purpose: every reload costs one of them per family.
 */
BV_API int32_t bv_db_hash_free(void);

/**
 * Finds a family.
 *
 * @param name  the family name
 * @return its record, owned by the database and valid until bv_db_hash_free(), with which every
 *         reload begins; null if unknown
 */
BV_API bv_db_family *bv_db_hash_find(const char *name);

/**
 * Adds an empty family: no parameters, no instances.
 *
 * @param name  the family name; copied
 * @return the new record, owned by the database; null if the name exists (its record stays as it
 *         is), if 2048 families exist, or if memory is short
 */
BV_API bv_db_family *bv_db_hash_add(const char *name);

/**
 * Adds every family of a registration list that does not exist yet and reads its template.
 *
 * @param list  &g_st_db_mng.user_list, private_list or factory_list
 * @return always 0: a family whose template cannot be read exists without parameters
 */
BV_API int32_t bv_db_template_read(bv_list_head *list);

/**
 * Reads one template into a family.
 *
 * @param name    a path that exists (relative to the current directory if not absolute), or else
 *                the name of a file anywhere under /etc/template, found by running find
 * @param family  the record to fill: parameters, working and default image. What it held of
 *                them goes first. Its instances stay when the image size is the same as before,
 *                and keep their bytes: a template that arranges the same number of bytes otherwise
 *                gives them another meaning. When the size changes they go, since their images
 *                would not fit.
 *
 * @retval BV_OK          read; elements lacking a key or with a len of 1024 or more are skipped
 * @retval -1             not found, found in several places, no JSON, no array "para", more than
 *                        425 elements (they share one allocation), no memory for an image, or an
 *                        argument is null
 * @retval BV_ERR_MEMORY  no memory for the descriptors
 * @retval BV_ERR_NO_FILE the output of find cannot be captured
 *
 * After a failure the family has no parameters and image size 0, unless it had them before and
 * the new template was not found or had no array "para"; function names that were read stay.
 */
BV_API int32_t bv_db_template_read_single(const char *name, bv_db_family *family);

/**
 * Converts an image to text, in the descriptors' values.
 *
 * @param image  the packed parameters, at any alignment; null does nothing
 * @param count  descriptors to look at; the first invalid one ends the walk
 * @param table  the descriptors; each known type's value is replaced, others stay
 * @return 0
 *
 * The image has no size to keep to, and len bounds nothing: a type is read in its own width, and a
 * string up to its first NUL, of which at most 1023 characters are looked at; without a NUL there
 * it is empty. So the caller provides, after the last parameter too, whatever its types read: a
 * string that fills its len and has no NUL reads on. So images of the database itself are not for
 * this call, unless the template gives every type its width and every text its NUL. Only what
 * negative lengths move in front of the image reads as 0.
 */
BV_API int32_t bv_db_user_fill_frommem(const void *image, int32_t count, bv_db_para *table);

/**
 * Converts the descriptors' values into the family's working image.
 *
 * @param family  the family; without descriptors or a working image nothing happens
 * @param mode    1: only descriptors whose selected is 1; otherwise all
 * @return 0
 *
 * Integers are decimal text modulo 2^32, 0 without a number; a type stores its own width,
 * whatever len says, but nothing outside the image's allocation (the image size rounded up to 32,
 * or the sum of the valid len when the image size is 0). A string is cut to len - 1 characters;
 * what the image held after its NUL stays there. An invalid "ip" is 0.0.0.0.
 */
BV_API int32_t bv_db_user_fill_tomem(bv_db_family *family, int32_t mode);

/**
 * Writes the data file of a registration list.
 *
 * @param list  the registration list
 * @param path  the file; made with mode 0600 if it is missing
 *
 * @retval BV_OK             written, as far as the disk had room
 * @retval BV_ERR_WRITE_OPEN path cannot be opened for writing, or an argument is null
 *
 * The file is rewritten in place, without a temporary one: a power cut or a full disk leaves
 * only its beginning, which no load understands, and a full disk is not reported. What is in
 * memory is not harmed, so a later call repairs the file. The text needs no memory but 8 KiB of
 * stack.
 * Names and values are not escaped: a quote, a backslash or a control character in one makes the
 * whole file unreadable. A family without instances is written as instance 1 with its defaults.
 * Afterwards the descriptors' values are those of the last instance written, and so is what a
 * load then takes for a parameter that a file lacks.
 */
BV_API int32_t bv_db_user_write(bv_list_head *list, const char *path);

/**
 * Loads a data file into the families of a registration list.
 *
 * @param list  the registration list
 * @param path  the file
 *
 * @retval BV_OK  loaded; elements that are not understood are skipped
 * @retval -1     path is missing or no JSON, or an argument is null: no instance is made
 *
 * Families with an image size of 0 are passed over. A family that the file lacks gets instance 1,
 * from its working image, unless it has one of that number. An element that lacks a parameter takes
 * the text which that one had in the element before it (the template's default at first); services
 * rely on that. An instance that exists is overwritten. Elements for which memory is short are left
 * out, and the result is 0 all the same.
 *
 * All elements go through one working image: after the NUL of a string that was loaded there may be
 * the end of a longer text from an earlier element or the defaults. Do not compare or hash images
 * as bytes, and do not pass those bytes on.
 */
BV_API int32_t bv_db_user_read(bv_list_head *list, const char *path);

/**
 * Finds an instance of a family, walking its list.
 *
 * @param family  the family
 * @param inst    the number
 * @return the first one of that number, owned by the family; null if there is none
 */
BV_API bv_db_inst *bv_db_data_get_inst(bv_db_family *family, int32_t inst);

/**
 * Finds the first instance in list order.
 *
 * @param family  the family
 * @param inst    where its number is stored
 * @return the instance, owned by the family; null if there is none
 */
BV_API bv_db_inst *bv_db_data_get_inst_first(bv_db_family *family, int32_t *inst);

/**
 * Finds the instance after another one in list order, which is the order of adding.
 *
 * @param family  the family
 * @param prev    number of the other one; of several, the first counts
 * @param inst    where the number found is stored
 * @return the instance, owned by the family; null if prev is absent or last
 */
BV_API bv_db_inst *bv_db_data_get_inst_next(bv_db_family *family, int32_t prev, int32_t *inst);

/**
 * Looks up the highest instance number by walking the list.
 *
 * @param family  the family
 * @return at least 1: also for an empty list, for numbers that are all below, and for null
 */
BV_API int32_t bv_db_data_get_inst_max(bv_db_family *family);

/**
 * Copies an instance's image out.
 *
 * @param family    the family
 * @param instance  one of its instances
 * @param buf       room for the image; null fails
 * @param buflen    bytes in buf; below the image size all of them are cleared and the copy fails,
 *                  above it the rest of buf stays as it was, above 0x7fffffff all of it does and
 *                  the copy fails
 * @return 0, or the status of the bounded copy (bv_os_memcpy()); an image size of 0 or less
 *         copies nothing and is 0
 */
BV_API int32_t bv_db_data_get_context(bv_db_family *family, bv_db_inst *instance, void *buf,
                                      uint32_t buflen);

/**
 * Copies into an instance's image.
 *
 * @param family    the family
 * @param instance  one of its instances
 * @param buf       the new beginning of the image; null clears the image and fails
 * @param buflen    bytes in buf; above the image size the image is cleared and the copy fails,
 *                  below it the rest of the image stays
 * @return 0, or the status of the bounded copy (bv_os_memcpy()); an image size of 0 or less
 *         copies nothing and is 0
 */
BV_API int32_t bv_db_data_set_context(bv_db_family *family, bv_db_inst *instance, const void *buf,
                                      uint32_t buflen);

/**
 * Adds an instance after the others, without looking whether the number is taken.
 *
 * @param family  the family
 * @param buf     the image; copied
 * @param buflen  bytes in buf; above the image size (or buf null) the image is all zero, below
 *                it the rest is
 * @param inst    its number
 *
 * @retval BV_OK          added, even if the copy failed
 * @retval BV_ERR_MEMORY  memory is short
 */
BV_API int32_t bv_db_data_add_inst(bv_db_family *family, const void *buf, uint32_t buflen,
                                   int32_t inst);

/**
 * Takes an instance out of its family and releases it.
 *
 * @param family    the family
 * @param instance  one of its instances; invalid afterwards
 * @return 0
 */
BV_API int32_t bv_db_data_del_inst(bv_db_family *family, bv_db_inst *instance);

/**
 * Releases every instance of a family. Its highest number is 1 afterwards.
 *
 * @param family  the family
 * @return 0
 */
BV_API int32_t bv_db_data_free(bv_db_family *family);

/**
 * Adds an instance.
 *
 * @param name    the family
 * @param buf     its image; copied
 * @param buflen  bytes in buf. Give the whole image: with more, or without buf, the new image is
 *                all zero and with less its rest is, and the result is 0 all the same.
 * @param inst    its number
 *
 * @retval BV_OK             added after the others
 * @retval BV_ERR_NO_FAMILY  no such family
 * @retval BV_ERR_EXISTS     the number is taken
 * @retval BV_ERR_MEMORY     memory is short
 */
BV_API int32_t bv_db_inst_add(const char *name, const void *buf, uint32_t buflen, uint32_t inst);

/**
 * Deletes an instance.
 *
 * @param name  the family
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
 * @param name  the family
 * @param out   where the number is stored
 *
 * @retval BV_OK             stored: 1 in a new family, at least 2 after any add or delete
 * @retval BV_ERR_NO_FAMILY  no such family, or out is null
 *
 * Aborts when the highest number is 2147483647.
 */
BV_API int32_t bv_db_inst_getnew(const char *name, uint32_t *out);

/**
 * Counts the instances of a family.
 *
 * @param name  the family
 * @return their number; 0 also when there is no such family
 */
BV_API int32_t bv_db_inst_getnum(const char *name);

/**
 * Reads an instance.
 *
 * @param name    the family
 * @param buf     room for the image; null copies nothing
 * @param buflen  bytes in buf. Give at least the image size: with less all of buf is cleared and
 *                the result is 0 all the same. With more the rest of buf stays as it was, with
 *                more than 0x7fffffff all of it.
 * @param inst    the number; 1 gives the template's defaults when there is no instance 1
 *
 * @retval BV_OK               read; nothing is copied for a family without parameters
 * @retval BV_ERR_NO_FAMILY    no such family
 * @retval BV_ERR_NO_INSTANCE  no such instance
 */
BV_API int32_t bv_db_read(const char *name, void *buf, uint32_t buflen, uint32_t inst);

/**
 * Reads the first instance in list order; the start of a walk over all of them.
 *
 * @param name         the family
 * @param buf, buflen  as for bv_db_read()
 * @param inst         where its number is stored
 *
 * @retval BV_OK               read
 * @retval BV_ERR_NO_FAMILY    no such family
 * @retval BV_ERR_NO_INSTANCE  the family has none
 */
BV_API int32_t bv_db_read_first(const char *name, void *buf, uint32_t buflen, uint32_t *inst);

/**
 * Reads the instance after another one in list order (the order of adding, not of numbers).
 *
 * @param name         the family
 * @param buf, buflen  as for bv_db_read()
 * @param prev         the number that the last call of the walk gave
 * @param inst         where the number found is stored; may be the same object as prev
 *
 * @retval BV_OK               read
 * @retval BV_ERR_NO_FAMILY    no such family
 * @retval BV_ERR_NO_INSTANCE  prev was the last, or is absent
 */
BV_API int32_t bv_db_read_next(const char *name, void *buf, uint32_t buflen, uint32_t prev,
                               uint32_t *inst);

/**
 * Overwrites an instance; it never makes one, not even instance 1.
 *
 * @param name    the family
 * @param buf     the image; copied
 * @param buflen  bytes in buf. Give the whole image: with more, or without buf, the image is all
 *                zero afterwards, with less its rest stays, and the result is 0 all the same.
 * @param inst    its number
 *
 * @retval BV_OK               overwritten
 * @retval BV_ERR_NO_FAMILY    no such family
 * @retval BV_ERR_NO_INSTANCE  no such instance: add it with bv_db_inst_add()
 */
BV_API int32_t bv_db_write(const char *name, const void *buf, uint32_t buflen, uint32_t inst);

/** Tells whether bv_db_ready() was called: 1 or 0. */
BV_API int32_t bv_db_status(void);

/** Lets bv_db_commit() and bv_db_private() write from now on; returns 0. */
BV_API int32_t bv_db_ready(void);

/**
 * Writes the user families to /config/work/userdata.json; nothing before bv_db_ready().
 *
 * @return as bv_db_user_write(), whose warnings hold; 0 when nothing is written
 */
BV_API int32_t bv_db_commit(void);

/** Writes the private families to /config/work/privdata.json; otherwise as bv_db_commit(). */
BV_API int32_t bv_db_private(void);

/** Writes the factory families to /config/factory/factory.json, also before bv_db_ready(). */
BV_API int32_t bv_db_factory(void);

/**
 * Resets everything to the templates' defaults: all families are read afresh and have no
 * instances. No file is touched.
 *
 * @return 0
 */
BV_API int32_t bv_db_template(void);

/**
 * Returns to the factory state: factory families as their file has them, user and private ones
 * at their templates' defaults. The work files change only with the next commit, which then
 * writes the defaults.
 *
 * @return 0
 */
BV_API int32_t bv_db_restore(void);

/**
 * Loads everything: the templates and the data file of the factory, the user and the private
 * families, in this order, which decides about a name that stands in several lists. A data file
 * that is missing or damaged leaves its families without instances: instance 1 then reads as the
 * defaults.
 *
 * @return 0
 */
BV_API int32_t bv_db_start(void);

/**
 * Carries out a command that came in a message.
 *
 * @param msg  its first 32-bit word, at any alignment: 1 commit, 2 private, 3 factory, 4 template,
 *             5 restore, 6 start; 7, 8 and 9 print the factory, user and private families;
 *             anything else does nothing, and so does a null msg
 * @return the result of the call, otherwise 0
 */
BV_API int32_t bv_db_trigger(const uint32_t *msg);

#ifdef __cplusplus
}
#endif

#endif
