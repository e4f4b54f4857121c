// Build step for the bash completion: copies the completion script's template, filling in the
// operation words and the type names from the very tables the program looks words up in, so the
// completion never offers a word the program would refuse nor misses one it accepts.
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "compute/compute.h"

namespace {

// Replaces the one occurrence of a placeholder; a template without it is a build error.
bool Fill(std::string *text, const std::string &placeholder, const std::string &words) {
  size_t at = text->find(placeholder);
  if (at == std::string::npos) return false;
  text->replace(at, placeholder.size(), words);
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: zvcompute_words TEMPLATE OUTPUT\n");
    return 1;
  }
  std::ifstream in(argv[1]);
  std::stringstream text;
  text << in.rdbuf();
  std::string script = text.str(), ops, types;
  // The words go between single quotes in the script.
  for (const OperationEntry *e = OperationTable; e->name; ++e) ops += std::string(ops.empty() ? "" : " ") + e->name;
  for (int i = 0; TypeIdentTab[i]; ++i) types += std::string(types.empty() ? "" : " ") + TypeIdentTab[i];
  if (!in || ops.find('\'') != std::string::npos || !Fill(&script, "@OPERATIONS@", ops) ||
      !Fill(&script, "@TYPES@", types)) {
    std::fprintf(stderr, "zvcompute_words: cannot fill in %s\n", argv[1]);
    return 1;
  }
  std::ofstream out(argv[2]);
  out << script;
  return out.flush() ? 0 : 1;
}
