// Command-line options: tables of declared options, parsed from the argument vector and, for options
// that are not given, from the environment; usage line and option errors.
#pragma once
#include <cstdint>
#include <string>

#include "platform/core/core.h"
#include "platform/core/errors.h"
#include "platform/core/parse.h"

// Error block of the module, registered by OptionsModule.
inline constexpr uint32_t E_OPTIONS = 0x20000;         // internal error (options)
inline constexpr uint32_t E_OPTIONS_PARSE = 0x20001;   // option parse error
inline constexpr uint32_t E_OPTIONS_NONE = 0x20002;    // unknown command line option
inline constexpr uint32_t E_OPTIONS_ERR = 0x20003;     // invalid command line option
inline constexpr uint32_t E_OPTIONS_VAL = 0x20004;     // illegal option value
inline constexpr uint32_t E_OPTIONS_NUM = 0x20005;     // invalid number of option values
inline constexpr uint32_t E_OPTIONS_DUP = 0x20006;     // duplicate command line option
inline constexpr uint32_t E_OPTIONS_REQ = 0x20007;     // required command line option
inline constexpr uint32_t E_OPTIONS_CONFL = 0x20008;   // conflicting command line options
inline constexpr uint32_t E_OPTIONS_ARG = 0x20009;     // invalid command line argument
inline constexpr uint32_t E_OPTIONS_ARGNUM = 0x2000a;  // insufficient number of command line arguments
inline constexpr uint32_t E_OPTIONS_END = 0x2000b;

extern const ErrorEntry OptionsErrorTable[];

// One row of an option table; a row whose declaration is null ends the table.
//   count        receives the number of values stored (a switch: 1 when given); null: a scratch slot
//   value        String: array of text pointers; Bool..Complex: array of values of the type;
//                Keyword: the null-terminated keyword table; a switch: null
//   aux          Keyword: uint64_t receiving the matched keyword's index; other types: null or a
//                uint64_t value count shared by several options (0 until the first one sets it)
//   constraints  null, or the row's list of relations to other rows (see OptionsConstraint*)
//   declaration  e.g. "[ seed <> Size ]"
struct OptionEntry {
  uint64_t *count;
  void *value;
  void *aux;
  uint32_t *constraints;
  const char *declaration;
};

// Optional context of a table: text inserted between the dash and every name (null or "": none),
// and a value count that replaces a declared count range containing it (0: none).
struct OptionPrefix {
  const char *prefix;
  uint64_t count;
};

// Type indices (positions of the type keywords).
enum : uint64_t {
  OptionTypeSwitch = 0,
  OptionTypeString = 1,
  OptionTypeKeyword = 2,
  OptionTypeBool = 3,
  OptionTypeIndex = 4,
  OptionTypeSize = 5,
  OptionTypeOffset = 6,
  OptionTypeCoord = 7,
  OptionTypeReal = 8,
  OptionTypeComplex = 9,
  OptionTypeCount = 10,
};

// Declaration flags.
inline constexpr uint32_t OptionFlagGiven = 0x1;
inline constexpr uint32_t OptionFlagOptional = 0x2;   // "["
inline constexpr uint32_t OptionFlagEnv = 0x4;        // zv_<name> may stand in
inline constexpr uint32_t OptionFlagSquare = 0x8;     // "*": the count is a square
inline constexpr uint32_t OptionFlagPositive = 0x10;  // "+"
inline constexpr uint32_t OptionFlagRange = 0x20;     // explicit value range
inline constexpr uint32_t OptionFlagIncreasing = 0x200;     // "<"
inline constexpr uint32_t OptionFlagNonDecreasing = 0x600;  // "<="

// Constraint words: low byte of the first word = number of further words; bits 8..15 = signed
// distance (in words) from the word to its partner, the first word of another row's list.
inline constexpr uint32_t OptionsConstraintOr = 0x10000;       // one of the group is required
inline constexpr uint32_t OptionsConstraintAnd = 0x20000;      // all of the group are required
inline constexpr uint32_t OptionsConstraintExcl = 0x40000;     // mutually exclusive
inline constexpr uint32_t OptionsConstraintSettled = 0x100000;
inline constexpr uint32_t OptionsConstraintConflict = 0x400000;
inline constexpr uint32_t OptionsConstraintGiven = 0x800000;

// One declaration, read afresh by OptionsParseSpec.
struct OptionSpec {
  uint64_t *count;
  uint64_t name_length;
  const char *name;         // points into the declaration (not terminated at the name's end)
  const char *prefix;       // never null
  uint64_t env_length;      // 0: no environment lookup
  const char *env_name;     // points into the declaration
  const char *env_program;  // program name used before the environment prefix, or null
  uint64_t min_count;
  uint64_t max_count;
  uint64_t fixed_count;     // "=" number, 0 if none
  uint64_t type;            // index into OptionTypeTable
  StringParseFn parse;
  alignas(8) unsigned char range[16];  // lower and upper bound in the type's representation
  char sep_ident;
  char sep_value;
  uint32_t flags;
};

struct OptionType {
  const char *keyword;
  StringParseFn parse;        // null for Switch, String and Keyword
  const void *range;          // default range, or null
  uint64_t range_size;        // bytes of both bounds together
  uint64_t value_size;        // bytes of one stored value
};
extern const OptionType OptionTypeTable[OptionTypeCount];
// The type keywords, null-terminated, for StringParseKeywordCase.
extern const char *const OptionTypeNames[OptionTypeCount + 1];

// Exported settings.
extern char OptionsPrfx;                  // '-'
extern char OptionsSepIdent;              // 0, or forced identifier separator
extern char OptionsSepValue;              // 0, or forced value separator
extern const char OptionsSepIdentTab[];   // "=:"
extern const char OptionsSepValueTab[];   // ",,:;"
extern const char OptionsExtra[];         // "_-0123456789"
extern const char OptionsEnvPrfx[];       // "zv"

// Registry of option tables parsed by the core library's initialisation.
using OptionsInitFn = uint32_t (*)(void *block, uint64_t size, void **result);
using OptionsFinishFn = void *(*)(void *chained_result, void *block, uint64_t size, void *current);

struct OptionRegistration {
  const OptionPrefix *prefix;
  const OptionEntry *table;   // null once listed by OptionsUsage
  OptionsInitFn init;
  OptionsFinishFn finish;
  void *block;
  uint64_t size;
  OptionRegistration *chained;
  void **result;
  OptionRegistration *self;
};
inline constexpr uint32_t OptionsRegistryMax = 16;

// Read one declaration; 0 or E_OPTIONS_PARSE (pushed with the declaration).
uint32_t OptionsParseSpec(const char *declaration, OptionSpec *spec, const OptionPrefix *prefix);
// The same without reporting (for the usage line, where an unreadable declaration prints nothing).
bool OptionsReadSpecQuiet(const char *declaration, OptionSpec *spec, const OptionPrefix *prefix);
// Parse a table against CoreArgv/CoreArgc and the environment; matched arguments are removed from
// the vector. Returns 0 or the first error (pushed).
uint32_t OptionsParse(const OptionEntry *table, const OptionPrefix *prefix);

OptionRegistration *OptionsRegister(const OptionEntry *table, OptionsInitFn init, OptionsFinishFn finish,
                                    void *block, uint64_t size, const OptionPrefix *prefix);
uint32_t OptionsChain(OptionRegistration *registration, OptionRegistration *chained, void **result);
uint32_t OptionsRegisterCore(const char *name, const char *version, const char *notice,
                             OptionRegistration *registration);
uint32_t OptionsCallback(void *context);
// The registry in registration order; *count receives the number of entries.
OptionRegistration *OptionsRegistry(uint32_t *count);

extern const ModuleDescriptor OptionsModule;
uint32_t OptionsModuleInit();

// Usage: report pending errors, print "usage: <program>" and the options of the table and of every
// registered table to standard error, exit(1). Returns only for a null table (264 pushed).
uint32_t OptionsUsage(const OptionEntry *table);
// One option of the usage line, printed to standard error.
uint32_t OptionsUsageItem(const OptionEntry *row, const OptionPrefix *prefix);
// The text OptionsUsageItem prints (empty when the declaration cannot be read).
uint32_t OptionsUsageText(const OptionEntry *row, const OptionPrefix *prefix, std::string *text);
// The whole usage line after "usage: <program>" without the newline; registered tables listed are
// forgotten, as in OptionsUsage.
uint32_t OptionsUsageLine(const OptionEntry *table, std::string *text);

// Error texts.
uint32_t OptionsReportSpec(uint32_t code, const char *declaration);
uint32_t OptionsReportName(uint32_t code, const OptionSpec *spec);
uint32_t OptionsReportPair(uint32_t code, const char *joiner, const OptionEntry *row, const OptionPrefix *prefix);
// " -<prefix><name>", prefix and name cut to 125 characters together.
uint32_t OptionsNameText(const OptionSpec *spec, const char *name, uint64_t length, char text[128]);
