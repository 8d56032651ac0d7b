// The texts of the error numbers, taken from the one list that also gives their names.
#include "platform/error_numbers.h"
#include "runtime/string.h"

namespace orlix {

namespace {

constexpr const char* TEXTS[] = {
#define ORLIX_ERROR_TEXT(number, name, text) text,
    ORLIX_ERROR_NUMBERS(ORLIX_ERROR_TEXT)
#undef ORLIX_ERROR_TEXT
};

constexpr int NUMBERS[] = {
#define ORLIX_ERROR_NUMBER(number, name, text) number,
    ORLIX_ERROR_NUMBERS(ORLIX_ERROR_NUMBER)
#undef ORLIX_ERROR_NUMBER
};

// The table is indexed by number, so the list must count up from 0 without a gap.
constexpr bool numbered_in_order()
{
    for (int i = 0; i < ERROR_NUMBER_COUNT; ++i)
        if (NUMBERS[i] != i)
            return false;
    return true;
}
static_assert(sizeof TEXTS / sizeof TEXTS[0] == ERROR_NUMBER_COUNT);
static_assert(sizeof NUMBERS / sizeof NUMBERS[0] == ERROR_NUMBER_COUNT && numbered_in_order());

} // namespace

const char* strerror(int number)
{
    if (number < 0 || number >= ERROR_NUMBER_COUNT)
        return "<unknown error>";
    return TEXTS[number];
}

} // namespace orlix
