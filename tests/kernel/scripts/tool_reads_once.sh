# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A command opens a file of the store at most twice, besides what the library's own operations open, and
# once more to flush it in a change that is made as a whole. It opens a file of the service catalogue at
# most twice, and a few times more where rules are tried, applied or queried, or compared with what is in
# force. "status" lists each family once.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kMost=2          # openings of a file of the store: before a change, and after it
readonly kMostCatalogue=2 # of the catalogue: by the platform, and for the names of its services
readonly kOpened=/tmp/opened
readonly kTable=$out/counts

# most WHO DIRECTORY-PATTERN: how often that file was opened by WHO which was opened most often.
most() {
    sed -n "s|^$1 \($2.*\)|\1|p" "$kOpened" | sort | uniq -c | sort -rn |
        awk 'NR == 1 {most = $1} END {print most + 0}'
}

# counted STATUS ARGUMENT...: the command ends so, and opens no file too often.
counted() {
    local store catalogue total runs most=$kMost mostCatalogue=$kMostCatalogue
    : >"$kOpened"
    LD_PRELOAD=$build/tests/kernel/libopen_probe.so OPEN_PROBE=$kOpened answers "$@"
    store=$(most tool /usr/tarn/etc/firewall.d/)
    catalogue=$(most '[a-z]*' '/usr/tarn/etc[a-z.]*/services.d/')
    # The reload itself, the look at it beforehand, and what may be in force: here the profile as it was stored,
    # or as it was before a change that was not applied.
    [[ " $* " != *' --reload '* ]] || ((mostCatalogue += 4))
    [[ $2 != enable && $2 != reload ]] || ((mostCatalogue += 1))
    # A changed rule is translated, to be tried in a scratch kernel, and the profile that may be in force.
    [[ $2 != rule || " $* " == *' --reload '* ]] || ((mostCatalogue += 2))
    [[ $2 != import && $2 != service ]] || ((mostCatalogue += 1)) # what may be in force
    [[ $2 != blocked ]] || ((mostCatalogue += 2)) # "global", the adapter; the kernel's rules; all packets
    total=$(grep --count '^[tl].*/firewall.d/' "$kOpened" || true)
    runs=$(grep --count '^run' "$kOpened" || true)
    printf '%-40s %5s %5s %5s %5s\n' "${*:2}" "$store" "$catalogue" "$total" "$runs" | tee -a "$kTable"
    # The end of a change that may be undone as a whole opens each document once more, to flush it.
    case " $* " in
    *' --reload '* | *' import '* | *' service reserve '* | *' service release '* | *' service update '* | \
        *' adapter rename '*) ((most += 1)) ;;
    esac
    ((store <= most && catalogue <= mostCatalogue)) || {
        sort "$kOpened" | uniq -c
        fail "opened too often: tarnfw ${*:2}"
    }
}

# opens WHO: the last command opened something, so the counting works.
opens() {
    grep --quiet "^$1 " "$kOpened" || fail "nothing was opened by $1"
}

printf '%-40s %5s %5s %5s %5s\n' command store catal. all iptables >"$kTable"
answers 0 base up
use_profile deny_by_default
answers 0 profile copy deny_by_default home
answers 0 rule add allow service ssh --adapter eth0 --profile home

counted 0 enable --yes
opens library
counted 0 status
opens tool
step 'IPv4 is listed once' [ "$(grep --count '^run .*/iptables .* -S' "$kOpened")" = 1 ]
step 'nothing else is listed where nobody has other tables' [ "$(grep --count '^run ' "$kOpened")" = 2 ]
step 'and so is IPv6' [ "$(grep --count '^run .*/ip6tables .* -S' "$kOpened")" = 1 ]
counted 0 profile list
counted 0 profile show
counted 0 profile use home --reload
counted 0 rule add allow service http --adapter eth0
opens tool
counted 0 rule add allow tcp 81 --adapter eth0 --reload
counted 0 reload
counted 0 check
counted 0 preview
counted 10 blocked --port tcp/23 --adapter eth0
step 'IPv4 is listed once' [ "$(grep --count '^run .*/iptables .* -S' "$kOpened")" = 1 ]
step 'and nothing but the two families' [ "$(grep --count '^run ' "$kOpened")" = 2 ]
counted 10 explain --port tcp/23 --adapter eth0 --from 192.168.1.20
counted 0 diff
# Which families there are; two texts a family for the scratch kernel; a list in each of both kernels.
step 'and lists a table once a kernel' [ "$(grep --count '^run ' "$kOpened")" = 9 ]
counted 0 adapters
counted 0 services
counted 0 export /tmp/all.json
counted 0 rule delete 1 --adapter eth0 --profile deny_by_default
counted 0 import --yes /tmp/all.json
counted 0 service reserve ssh allow --adapter eth0
counted 0 apply-mode batch
counted 0 disable
cat -- "$kTable"
