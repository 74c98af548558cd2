// Configuration parameters: the free functions that read one value from the
// configuration file, CRtConfigInitFile (the same reads with defaults), and the
// names of the executable. Hosts use all of them directly.
//
// The file is "conf/kvtix.ini" below the process's current directory
// ("/tmp/kvtix.ini" when there is none). It holds sections and keys:
//
//   # a comment
//   [Trace]
//   Enable = TRUE
//   FlushPerLines = 10;
//
// Section and key names compare without regard to case; keys and values are
// trimmed of " \t\r\n", a value in matching quotes loses them, and one trailing
// ";" is dropped. Only the first section of a name is searched; a line that
// holds both "[" and "]" is a section header wherever they stand. There is no
// writer and no cache: every read opens and scans the file anew, so read at
// start-up and on explicit reloads only.
//
// Thread rules: every function may be called from any thread. The buffers the
// path functions return are static (get_exec_name, get_process_name) or belong
// to the calling thread (get_kvtix_home_dir).
#ifndef RTCONFIG_H
#define RTCONFIG_H

#include "rtdefines.h"

// Copies the value of aKey in aSection into aValue (aSize bytes, cut to fit,
// always terminated; empty when the key is missing) and returns 1 when the
// value was not empty, else 0. A null aValue reads nothing and returns 0.
RT_API unsigned char get_string_param(const char* aSection, const char* aKey, char* aValue,
                                      unsigned long aSize);
// The numeric readers return 0 for a missing or empty value, and read a
// present one as scanf's "%d", "%d" cut to 16 bits, or "%u" would; a value that
// does not start with a number reads as 0.
RT_API int get_int_param(const char* aSection, const char* aKey);
RT_API unsigned short get_uint16_param(const char* aSection, const char* aKey);
RT_API unsigned long get_uint32_param(const char* aSection, const char* aKey);
// 1 when the value is "TRUE" in any case, 0 for any other present value,
// aDefault when the key is missing or empty.
RT_API unsigned char get_bool_param(const char* aSection, const char* aKey, unsigned char aDefault);

// Record a home path for host programs (at most 510 and 512 characters); the
// configuration file's place does not depend on it.
RT_API void init_config(const char* aPath);
RT_API void set_kvtix_home_env(const char* aPath);
// The current directory, in a 512-byte buffer of the calling thread; empty
// when it cannot be had.
RT_API char* get_kvtix_home_dir();
// The full path of the executable, found once; empty when it cannot be had.
RT_API const char* get_exec_name();
// The executable's file name (the text after the last "/"), or "defproc".
RT_API const char* get_process_name();

// The configuration reads with defaults. It keeps nothing: InitWithFileName
// accepts any name and reads still go to the file above.
class RT_API CRtConfigInitFile {
public:
    CRtConfigInitFile() = default;
    ~CRtConfigInitFile() = default;
    CRtConfigInitFile(const CRtConfigInitFile&) = default;
    CRtConfigInitFile& operator=(const CRtConfigInitFile&) = default;

    int InitWithFileName(const CRtString& aFileName);  // always RT_OK

    // Each returns aDefault when the key is missing or empty; the numeric ones
    // also when the value does not start with a number. Values are read through
    // a 256-byte buffer, so longer ones are cut to 255 characters.
    CRtString GetStringParam(const CRtString& aSection, const CRtString& aKey, CRtString aDefault);
    int GetIntParam(const CRtString& aSection, const CRtString& aKey, int aDefault);
    unsigned long GetDwordParam(const CRtString& aSection, const CRtString& aKey,
                                unsigned long aDefault);
    unsigned short GetWordParam(const CRtString& aSection, const CRtString& aKey,
                                unsigned short aDefault);
    int GetBoolParam(const CRtString& aSection, const CRtString& aKey, int aDefault);
};

#endif  // RTCONFIG_H
