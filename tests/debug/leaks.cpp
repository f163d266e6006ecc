// What a second start leaves behind is meant to stay: other threads may still be reading it. The
// leak detector, where a build has one, is told so.

extern "C" const char *__lsan_default_suppressions();
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:bv_debug_init\nleak:bv_db_init\nleak:bv_db_hash_add\n";
}
