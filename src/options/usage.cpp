// Usage line of option tables and the texts that name options in errors.
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "options/options.h"

namespace {

// Value letters by type index; positional arguments use the upper-case letter.
constexpr const char kLetters[] = " skbninrrc";

void Append(std::string *text, const char *format, ...) __attribute__((format(printf, 2, 3)));
void Append(std::string *text, const char *format, ...) {
  char buf[64];
  va_list ap;
  va_start(ap, format);
  int n = std::vsnprintf(buf, sizeof buf, format, ap);
  va_end(ap);
  if (n > 0) text->append(buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
}

void AppendTable(const OptionEntry *table, const OptionPrefix *prefix, std::string *text) {
  std::string item;
  for (const OptionEntry *row = table; row->declaration; ++row) {
    OptionsUsageText(row, prefix, &item);
    *text += item;
  }
}

// Every registered table once, each followed by its chained registrations.
void AppendRegistry(std::string *text) {
  uint32_t count;
  OptionRegistration *registry = OptionsRegistry(&count);
  for (uint32_t i = 0; i < count; ++i) {
    for (OptionRegistration *r = &registry[i]; r; r = r->chained) {
      if (!r->table) continue;
      AppendTable(r->table, r->prefix, text);
      r->table = nullptr;
    }
  }
}

}  // namespace

uint32_t OptionsUsageText(const OptionEntry *row, const OptionPrefix *prefix, std::string *text) {
  text->clear();
  if (!row) return ExceptionPush(E_ARGUMENT);
  OptionSpec spec;
  if (!OptionsReadSpecQuiet(row->declaration, &spec, prefix)) return 0;

  bool optional = (spec.flags & OptionFlagOptional) != 0;
  char opener = optional ? '[' : ' ';
  if (optional) *text += ' ';
  char before;
  if (spec.name_length) {
    Append(text, "%c%c%s%.*s", opener, OptionsPrfx, spec.prefix, static_cast<int>(spec.name_length), spec.name);
    before = spec.sep_ident ? spec.sep_ident : ' ';
  } else {
    before = opener;
  }
  if (spec.type != OptionTypeSwitch && spec.type < OptionTypeCount) {
    char letter = kLetters[spec.type];
    if (!spec.name_length) letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    char next = spec.sep_value ? spec.sep_value : ' ';
    uint64_t m = spec.min_count, M = spec.max_count;
    if (m > 3) {
      Append(text, "%c<%lu%c%c>", before, static_cast<unsigned long>(m), '*', letter);
      before = next;
    } else {
      for (uint64_t k = 0; k < m; ++k) {
        Append(text, "%c<%c>", before, letter);
        before = next;
      }
    }
    if (M <= m) {
      if (M == 0) Append(text, "%c...", before);
    } else if (M != UINT64_MAX) {
      uint64_t e = M - m;
      if (e > 3) {
        Append(text, "%c[%lu%c%c]", before, static_cast<unsigned long>(e), '*', letter);
      } else {
        for (uint64_t k = 0; k < e; ++k) {
          Append(text, "%c[%c]", before, letter);
          before = next;
        }
      }
    }
  }
  if (optional) *text += ']';
  return 0;
}

uint32_t OptionsUsageItem(const OptionEntry *row, const OptionPrefix *prefix) {
  std::string text;
  uint32_t st = OptionsUsageText(row, prefix, &text);
  std::fputs(text.c_str(), stderr);
  return st;
}

uint32_t OptionsUsageLine(const OptionEntry *table, std::string *text) {
  text->clear();
  if (!table) return ExceptionPush(E_ARGUMENT);
  if (!table->declaration) return 0;
  const OptionEntry *end = table;
  while (end->declaration) ++end;
  std::string item;
  for (const OptionEntry *row = table; row->declaration; ++row) {
    // The registered tables go in front of the first row that shares the end row's constraints.
    if (row->constraints == end->constraints) AppendRegistry(text);
    OptionsUsageText(row, nullptr, &item);
    *text += item;
  }
  return 0;
}

uint32_t OptionsUsage(const OptionEntry *table) {
  if (!table) return ExceptionPush(E_ARGUMENT);
  ExceptionReport(0);
  std::string line;
  OptionsUsageLine(table, &line);
  std::fprintf(stderr, "usage: %s%s\n", Main ? Main : "", line.c_str());
  std::exit(1);
}

uint32_t OptionsNameText(const OptionSpec *spec, const char *name, uint64_t length, char text[128]) {
  size_t k = 0;
  text[k++] = ' ';
  text[k++] = OptionsPrfx;
  // At most 125 characters of prefix and name.
  for (const char *p = spec && spec->prefix ? spec->prefix : ""; *p && k < 127; ++p) text[k++] = *p;
  for (uint64_t i = 0; name && i < length && name[i] && k < 127; ++i) text[k++] = name[i];
  text[k] = 0;
  return 0;
}

uint32_t OptionsReportSpec(uint32_t code, const char *declaration) {
  if (!declaration) return ExceptionPush(code);
  while (*declaration == ' ' || (*declaration >= '\t' && *declaration <= '\r')) ++declaration;
  return ExceptionPushMsg(code, " ", declaration, nullptr);
}

uint32_t OptionsReportName(uint32_t code, const OptionSpec *spec) {
  char text[128];
  OptionsNameText(spec, spec ? spec->name : nullptr, spec ? spec->name_length : 0, text);
  return ExceptionPushMsg(code, text, nullptr);
}

uint32_t OptionsReportPair(uint32_t code, const char *joiner, const OptionEntry *row, const OptionPrefix *prefix) {
  if (!row) return ExceptionPush(E_ARGUMENT);
  OptionSpec spec;
  if (uint32_t st = OptionsParseSpec(row->declaration, &spec, prefix)) return st;
  char text[128];
  OptionsNameText(&spec, spec.name, spec.name_length, text);
  if (joiner) {
    ExceptionAppend(joiner);
    ExceptionAppend(text);
  } else if (code) {
    // Always a new entry, even when an error with the same code is on top.
    ExceptionPushMsg(code, text, nullptr);
  } else {
    ExceptionAppend(text);
  }
  return 0;
}
