#!/bin/sh
# The bash completion of vigilctl: sourced by bash, asked for the words of
# a few command lines as bash asks for them (COMP_WORDS, COMP_CWORD), and
# the answers compared.
# Usage: test_completion.sh COMPLETION_FILE
set -u
file=$1
command -v bash >/dev/null 2>&1 || { echo "no bash: skipped"; exit 77; }
[ -r "$file" ] || { echo "no completion file $file"; exit 1; }

exec bash --norc --noprofile -c '
set -u
. "$1" || exit 1
complete -p vigilctl >/dev/null || { echo "vigilctl has no completion"; exit 1; }
fails=0
# comp "LINE" "EXPECTED": the completions of the last word of LINE (a line
# ending in a blank completes an empty word), sorted, joined by blanks.
comp() {
   local line=$1 expected=$2
   read -r -a COMP_WORDS <<<"$line"
   [[ $line == *" " ]] && COMP_WORDS+=("")
   COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
   COMP_LINE=$line
   COMP_POINT=${#line}
   COMPREPLY=()
   _vigilctl vigilctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
   local got
   got=$(printf "%s\n" "${COMPREPLY[@]}" | LC_ALL=C sort | tr "\n" " ")
   got=${got% }
   if [[ $got == "$expected" ]]; then
      echo "ok:   [$line] -> $got"
   else
      echo "FAIL: [$line] -> [$got], expected [$expected]"
      fails=$((fails + 1))
   fi
}
comp "vigilctl bi" "bindings"
comp "vigilctl de" "delete delete-on-expiry"
comp "vigilctl w" "watch whitelist"
comp "vigilctl --co" "--control"
comp "vigilctl --" "-- --control --help --json --text --timeout"
comp "vigilctl --control /tmp/x.sock --json confi" "config"
comp "vigilctl bindings 16 --" "--fabport --fabswitch --help --json --v6"
comp "vigilctl stats 16 32 --r" "--rows"
comp "vigilctl delete 16 --m" "--mac --methods"
comp "vigilctl delete 16 --methods " "arp dhcp dhcpv6 nd"
comp "vigilctl delete 16 --methods dh" "dhcp dhcpv6"
comp "vigilctl delete 16 --methods dhcp,a" "dhcp,arp"
comp "vigilctl delete 16 --methods dhcp,arp," "dhcp,arp,dhcpv6 dhcp,arp,nd"
comp "vigilctl delete 16 --mac " ""
comp "vigilctl delete-on-expiry o" "off on"
comp "vigilctl delete-on-expiry --" "--help --json"
comp "vigilctl watch --c" "--count"
comp "vigilctl help del" "delete delete-on-expiry"
comp "vigilctl upgrade --m" "--module"
comp "vigilctl state 16 --" ""
comp "vigilctl -- bin" "bindings"
comp "vigilctl con" "config conflicts"
comp "vigilctl ag" "agent"
comp "vigilctl fl" "fleet flowcache"
comp "vigilctl fleet " "bindings"
comp "vigilctl help ap" "apply"
comp "vigilctl policy 16 --" "--help"
[ $fails -eq 0 ] || { echo "$fails completions differ"; exit 1; }
' completion "$file"
