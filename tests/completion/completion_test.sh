#!/usr/bin/env bash
# The bash completion, called as bash calls it: each case is a command line with the cursor at its
# end, then words that must (+) or must not (-) be offered.
source /usr/share/bash-completion/bash_completion || exit 1
source "$1" || exit 1
cd "$(mktemp -d)" && touch a.mrc b.npy || exit 1
failed=0
# Readline's file-name quoting, which turns * into \*, is asked for with compopt: seen here as a word.
compopt() { [[ $* == '-o filenames' ]] && COMPREPLY+=('(quoted)'); }
check() {
  local line=$1 want r found
  shift
  COMP_LINE=$line COMP_POINT=${#line} COMPREPLY=()
  read -ra COMP_WORDS <<<"$line"
  [[ $line == *' ' ]] && COMP_WORDS+=('')
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  _zvcompute zvcompute "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
  for want; do
    found=-
    for r in "${COMPREPLY[@]}"; do [[ $r == "${want:1}" ]] && found=+; done
    [[ $found == "${want:0:1}" ]] || { echo "'$line': '${want:1}' wanted ${want:0:1}, got $found: ${COMPREPLY[*]}"; failed=1; }
  done
}
check 'zvcompute ' +-seed +-h +a.mrc +b.npy -sqrt -=
check 'zvcompute -f' +-fmt +-fmtin -a.mrc -b.npy
check 'zvcompute -fmtin x -fmt ' +zv +mrc +npy -a.mrc
check 'zvcompute -cap read,' +read,sync +read,mmap -sync
check 'zvcompute -seed 3 a.mrc ' += +-mean +/rms '+\*' '+\*\*' -a.mrc -uint8 -3 '-(quoted)'
check 'zvcompute a.mrc =' + -=
check 'zvcompute -seed 3 a.mrc - ' +b.npy -sqrt
check 'zvcompute out.mrc = ' +sqrt '+*' '++' +uint8 +cdouble +a.mrc -=
check 'zvcompute out.mrc = ' +b.npy +re +abs2 +real64 +xor
check 'zvcompute out.mrc = *' '+*' '+*uran' '+(quoted)' -a.mrc
check 'zvcompute out.mrc = a' +abs +atan +a.mrc -sqrt -b.npy
check 'zvcompute out.mrc = float ' +a.mrc -sqrt
check 'zvcompute out.mrc = a.mrc ' +gt '+\*\*' +-mean -uint8 -a.mrc
check "zvcompute out.mrc = a.mrc '*' " +b.npy -gt
check 'zvcompute out.mrc = a.mrc \* 2 ' -b.npy
check 'zvcompute out.mrc = real32 a.mrc ' -a.mrc -gt
exit $failed
