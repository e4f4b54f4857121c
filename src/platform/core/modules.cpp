// Descriptors of the library modules a program lists at start-up. Modules with nothing to register
// at start-up have no function.
#include "platform/core/core.h"
#include "platform/core/errors.h"
#include "platform/core/parse.h"

namespace {

const ErrorEntry kParseErrors[] = {
    {"E_PARSE_NOVALUE", "no value"},
    {"E_PARSE_RANGE", "value out of range"},
    {nullptr, nullptr},
};

uint32_t StringParseRegister() { return ExceptionRegister(kParseErrors, E_PARSE_NOVALUE, E_PARSE_RANGE + 1); }

constexpr const char *kVersion = "2.4";
constexpr const char *kNotice = "image processing core library";
constexpr const char *kStamp = "201406222041";

}  // namespace

const ModuleDescriptor FFFioModule = {"fffio", kVersion, kNotice, kStamp, nullptr, {}};
const ModuleDescriptor StringFormatModule = {"stringformat", kVersion, kNotice, kStamp, nullptr, {}};
const ModuleDescriptor StringParseModule = {"stringparse", kVersion, kNotice, kStamp, StringParseRegister, {}};
const ModuleDescriptor FileioModule = {"fileio", kVersion, kNotice, kStamp, nullptr, {}};
const ModuleDescriptor IOModule = {"io", kVersion, kNotice, kStamp, nullptr, {}};
const ModuleDescriptor ChecksumModule = {"checksum", kVersion, kNotice, kStamp, nullptr, {}};
const ModuleDescriptor ImageioExtraModule = {"imageioextra", kVersion, kNotice, kStamp, nullptr, {}};
const ModuleDescriptor ZvdataModule = {"zvdata", kVersion, kNotice, kStamp, nullptr, {}};
const ModuleDescriptor StatisticsModule = {"statistics", kVersion, kNotice, kStamp, nullptr, {}};
const ModuleDescriptor ImageModule = {"image", kVersion, kNotice, kStamp, nullptr, {}};
const ModuleDescriptor ArrayModule = {"array", kVersion, kNotice, kStamp, nullptr, {}};
const ModuleDescriptor BaseModule = {"base", kVersion, kNotice, kStamp, nullptr, {}};
