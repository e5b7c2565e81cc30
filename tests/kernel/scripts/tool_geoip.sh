# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# tarnfw geoip: the countries with data, a country's ranges, an address's country.

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kData=/usr/share/xt_geoip

# record FAMILY FIRST LAST: one range as the database has it, in words of this machine's byte order.
record() {
    python3 - "$@" <<'PYTHON'
import ipaddress
import struct
import sys

for text in sys.argv[2:]:
    packed = ipaddress.ip_address(text).packed
    for word in struct.unpack(f">{len(packed) // 4}I", packed):
        sys.stdout.buffer.write(struct.pack("=I", word))
PYTHON
}

for words in 'geoip list' 'geoip show DE' 'geoip check 10.0.0.1'; do
    read -r -a command <<<"$words"
    answers 5 "${command[@]}"
    complains '^tarnfw: there are no country data in /usr/share/xt_geoip$'
done

{
    record v4 10.0.0.0 10.0.0.255
    record v4 10.0.2.7 10.0.2.7
} >$kData/DE.iv4
record v6 2001:db8:: 2001:db8::ffff >$kData/DE.iv6
record v4 10.0.2.0 10.0.3.255 >$kData/FR.iv4
: >$kData/XX.iv4

answers 0 geoip list
silent
prints <<'END_OF_LIST'
country  IPv4 ranges  IPv6 ranges
DE       2            1
FR       1            0
XX       0            0
END_OF_LIST
answers 0 geoip list --json
step 'as a document' diff -u - <(jq --compact-output --sort-keys '.countries[]' "$out/answer") <<'END_OF_LIST'
{"country":"DE","v4Ranges":2,"v6Ranges":1}
{"country":"FR","v4Ranges":1,"v6Ranges":0}
{"country":"XX","v4Ranges":0,"v6Ranges":0}
END_OF_LIST

answers 0 geoip show DE
silent
prints <<<$'10.0.0.0-10.0.0.255\n10.0.2.7\n2001:db8::-2001:db8::ffff'
answers 0 geoip show de --v4
prints <<<$'10.0.0.0-10.0.0.255\n10.0.2.7'
answers 0 geoip show DE --v6
prints <<<'2001:db8::-2001:db8::ffff'
answers 0 geoip show FR --v6
silent
step 'which it has none of' [ ! -s "$out/answer" ]
for family in v6 6 ipv6; do
    answers 0 geoip show DE --family "$family"
    prints <<<'2001:db8::-2001:db8::ffff'
done
answers 2 geoip show DE --family 5
answers 0 geoip show DE --json
step 'as a document' diff -u - <(jq --compact-output --sort-keys . "$out/answer") <<'END_OF_RANGES'
{"country":"DE","ranges":[{"family":"v4","first":"10.0.0.0","last":"10.0.0.255"},{"family":"v4","first":"10.0.2.7","last":"10.0.2.7"},{"family":"v6","first":"2001:db8::","last":"2001:db8::ffff"}]}
END_OF_RANGES
answers 5 geoip show IT
complains '^tarnfw: there are no data for country "IT"; see "tarnfw geoip list"$'
answers 5 geoip show ../DE
complains '^tarnfw: there are no data for country "../DE"; '

answers 0 geoip check 10.0.0.255
silent
prints <<<'10.0.0.255 is in DE (10.0.0.0-10.0.0.255)'
answers 0 geoip check 10.0.2.7
prints <<<$'10.0.2.7 is in DE (10.0.2.7)\n10.0.2.7 is in FR (10.0.2.0-10.0.3.255)'
answers 0 geoip check 2001:db8:0::5
prints <<<'2001:db8::5 is in DE (2001:db8::-2001:db8::ffff)'
answers 1 geoip check 10.0.1.0
silent
prints <<<'10.0.1.0 is in no country'
answers 1 geoip check --json 2001:db8::1:0
step 'as a document' diff -u - <(jq --compact-output --sort-keys . "$out/answer") \
    <<<'{"address":"2001:db8::1:0","countries":[]}'
answers 0 geoip check --json 10.0.3.0
step 'as a document' diff -u - <(jq --compact-output --sort-keys . "$out/answer") <<'END_OF_MATCH'
{"address":"10.0.3.0","countries":[{"country":"FR","first":"10.0.2.0","last":"10.0.3.255"}]}
END_OF_MATCH

for wrong in geoip 'geoip show' 'geoip check' 'geoip check here' 'geoip show DE --v4 --v6'; do
    read -r -a words <<<"$wrong"
    answers 2 "${words[@]}"
done
