// Log lines before and after openlog, and one longer than a record holds.
#include <cstring>

#include "runtime/process.h"
#include "runtime/syslog.h"

int orlix::main(int, char**, char**)
{
    orlix::syslog(orlix::LOG_INFO_LEVEL, "before openlog %d", 1);
    orlix::openlog("a-very-long-identity-of-forty-characters", 0, 11);
    orlix::syslog(orlix::LOG_INFO_LEVEL, "with a long identity");
    orlix::openlog("tst", orlix::LOG_PID_OPTION, 11);
    orlix::syslog(orlix::LOG_ERR_LEVEL, "after openlog %s", "x");
    static char long_text[700];
    std::memset(long_text, 'y', sizeof long_text - 1);
    orlix::syslog(orlix::LOG_INFO_LEVEL, "%s", long_text);
    return 0;
}
