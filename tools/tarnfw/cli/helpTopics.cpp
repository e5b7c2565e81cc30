#include "cli/helpTopics.h"

namespace tarnfw {
namespace {

constexpr char kFirstSteps[] = R"(First steps

The firewall is off until you enable it, and installing it changes nothing.
All of this needs root's rights.

  tarnfw base up                what the firewall stands on in the packet
                                filter, and a first profile "default"
  tarnfw profile show default   its rules, in plain words
  tarnfw adapters               the adapters that rules can be for
  tarnfw services               the services that rules can name

Make a profile of your own, and change it while it is not in use:

  tarnfw profile copy default home
  tarnfw rule insert 1 --profile home --adapter global \
      allow tcp 8443 from 192.168.1.0/24
  tarnfw check home --kernel    is it right, and does the kernel take it?

Switch the firewall on. The first profile lets the local network in:

  tarnfw enable

Try your own. Unless you confirm in time, everything is as it was before:

  tarnfw try home --timeout 60

Confirmed, it is the active profile. Look, and ask:

  tarnfw status
  tarnfw blocked --port tcp/8443
  tarnfw explain --service ssh --from 192.168.1.20

"tarnfw disable" opens the machine again and keeps the profiles.
To enable it at each start: systemctl enable tarnfw.service
Read on with "tarnfw help rules" and "tarnfw help trials".
)";

constexpr char kProfiles[] = R"(Profiles

A profile is a named set of rules. Any number can be stored; one is active,
and its rules are in force while the firewall is enabled.

  tarnfw profile list           the active one has a star
  tarnfw profile show home      its rules, with their positions
  tarnfw profile create work    a new one, which allows everything
  tarnfw profile copy home work
  tarnfw profile use work       make it the active one

A profile has, for each adapter, a list of rules and a default policy:

  global        rules for all adapters; they are asked first
  eth0, ...     rules for one network interface
  pppoe, vpn    rules for the interface of the PPPoE connection, or for all
                those of VPN connections, whatever they are called

The first rule that matches a packet decides. When none does, the default
policy of the adapter decides: "tarnfw policy eth0 deny". "global" has none,
because it would decide for every adapter; end it with a rule "deny any" for
that. An adapter with rules and without a policy of its own gets "allow".

Changing a profile does not change what the kernel does. For the active one
"tarnfw reload" applies it; commands that change profiles take --reload for
that.
"tarnfw apply-mode" says, and sets, whether the rules take effect together
or one after another. Rules of an adapter that is away are skipped; when it
comes back, it is unfiltered until the next reload.

"tarnfw profile edit" opens the profile's document in your editor and stores
only what checks.
)";

constexpr char kRules[] = R"(Rules

  tarnfw rule add --adapter ADAPTER allow|deny [WHAT] [from|to ADDRESS]

WHAT is one of these; left out, it is "any":
  tcp 22                     a port: tcp, udp, or tcp/udp for both
  tcp 80,443,6000-6010       ports and ranges, without blanks
  udp                        every port
  service ssh,https          services of the catalogue ("tarnfw services")
  icmp, igmp                 a protocol without ports
  any                        everything

ADDRESS is described in "tarnfw help addresses"; left out, it is "anywhere".
"from" means the sender, "to" the receiver.

  tarnfw rule add --adapter eth0 allow tcp 22 from 192.168.1.0/24
  tarnfw rule add --adapter eth0 allow service smb from 10.0.0.5-10.0.0.9
  tarnfw rule add --adapter global deny from country CN,RU --log
  tarnfw rule insert 1 --adapter eth0 deny from 203.0.113.9 --name nuisance

The order counts: the first rule that matches decides. "rule add" puts a
rule behind the others, where an earlier one may leave it nothing to decide;
"rule insert" puts it where you say. Positions are those that "tarnfw
profile show" prints:

  tarnfw rule move 3 1 --adapter eth0
  tarnfw rule off 2 --adapter eth0      keep it, without effect
  tarnfw rule delete 2 --adapter eth0

Connections that exist already are not cut by a rule that denies. "allow"
passes a packet on to what others filter behind the firewall; "deny" drops
it without an answer. Options are listed in "tarnfw help rule add".
)";

constexpr char kAddresses[] = R"(Addresses

What stands behind "from" or "to" in a rule:

  192.168.1.20                  one address
  192.168.1.0/24                a network, by the length of its prefix
  192.168.1.0/255.255.255.0     the same, by its mask
  10.0.0.5-10.0.0.9             from the first to the last, both included
  2001:db8::/64                 IPv6 in all these forms, but without masks
  country CN,RU                 everybody in these countries
  anywhere                      no matter who; the same as leaving it out

A rule with an address is for the family of that address. Rules without one
are for IPv4 and IPv6; the options --v4 and --v6 limit them to one. A rule
that allows an IPv4 address therefore says nothing about IPv6: the same
client over IPv6 needs a rule of its own.

Countries need a database in /usr/share/xt_geoip and the kernel's geoip
match. "tarnfw geoip list" tells which countries there are, "tarnfw geoip
check 203.0.113.9" whose an address is. A country without data for a family
is left out there, and a rule that is left with none has no effect in that
family.

Names of hosts are not addresses: a rule could not follow them when they
change.
)";

constexpr char kServices[] = R"(Services

A service is a name for ports: "allow service smb" opens what file sharing
needs, and you need not know which ports those are.

  tarnfw services               names, titles and ports
  tarnfw services 'smb*'        those whose names are like that
  tarnfw rule add --adapter eth0 allow service smb,nfs from 192.168.1.0/24

The catalogue is made of the files in /usr/tarn/etc.defaults/services.d,
which packages bring, and /usr/tarn/etc/services.d, which is yours: a file
there adds a service or replaces one. Such a file holds

  {"name": "web_admin", "title": "Administration over the web",
   "dst": {"protocol": "tcp", "ports": ["8443", "9000-9010"]}}

After a change "tarnfw service update" brings all profiles up to date.
A service that has left the catalogue leaves the rules with it.

A service can be kept open, or closed, in every profile there is:

  tarnfw service reserve ssh allow --adapter eth0
  tarnfw service release ssh

Such reserved rules stand ahead of all others of the adapter. "release"
takes the service out of every rule, also of those that you have made.

The options of each command: "tarnfw services --help", and for instance
"tarnfw help service reserve".
)";

constexpr char kTrials[] = R"(Trials

A rule can cut the connection that you type it over. A trial puts a profile
in force for a while, and takes it back unless you say that it works.

  tarnfw profile copy default home      change a copy, not the active one
  tarnfw rule add --profile home --adapter eth0 deny tcp 23
  tarnfw try home --timeout 60

Now open a new connection to see whether you can still reach the machine.
  Enter in the first terminal, or "tarnfw try --confirm" in another one,
  keeps the rules: the profile is the active one from then on.
  Doing nothing, Ctrl-C, or "tarnfw try --cancel" brings the former rules
  back.

They come back as well when the terminal is lost or the command is killed: a
process of its own watches over the trial and outlives both.

During a trial no connection passes merely because it exists already. When
your terminal goes on answering, the new rules let it in; when it freezes,
wait until the time is over.

Only one trial runs at a time. A profile that is tried is stored beside the
others under a name that begins with ".test_" until the trial ends; a copy
that was left behind by a crash goes away with "tarnfw try --cancel".

Before a trial, "tarnfw check home --kernel" tells what is wrong with a
profile, and "tarnfw preview home" what would run. Neither changes anything.
)";

constexpr char kExitStatus[] = R"(Exit status

  0    done
  1    failed; what and why is on standard error
  2    wrong usage, with the nearest right command where there is one
  3    a document that does not check
  4    not root
  10   the answer is not the good one:
         blocked, explain   blocked somewhere, or from some addresses
         diff               the kernel does not hold what it should

So a script can ask whether a service can be reached before it relies on it:

  if tarnfw blocked --service nfs --adapter eth0 >/dev/null; then
      echo "nfs is open on eth0"
  fi

"tarnfw geoip check" ends with 1 for an address that is in no country.

Complaints go to standard error, one line each that begins with "tarnfw:".
Lines of the library, which tell where something went wrong, may stand
before it. So may, without "tarnfw:", what "import" finds wrong with a
document: one line each that begins with its name, as those of "check".
Answers go to standard output, as text for people; with --json as one
document whose keys stay the same from version to version.
Colours and progress are for terminals alone, and no colour is used when
NO_COLOR is set.
)";

constexpr char kFiles[] = R"(Files

Yours; this is what to back up:
  /usr/tarn/etc/firewall.d/*.json
      the profiles, one a file. The name in the file counts, not the file's.
  /usr/tarn/etc/firewall.d/firewall_settings.json
      whether the firewall is enabled ("status") and which profile is
      active ("profile"). Changing it by hand changes nothing in the kernel.
  /usr/tarn/etc/services.d/*.json
      services that you have added or replaced

The system's:
  /usr/tarn/etc.defaults/firewall_default_profile.json
      the first profile, which "tarnfw base up" writes where there is none
  /usr/tarn/etc.defaults/services.d/*.json
      the catalogue of services
  /usr/tarn/etc.defaults/iptables_modules_list
      the kernel modules that the firewall loads
  /usr/share/xt_geoip/*.iv4, *.iv6
      the addresses of countries
  /usr/tarn/libexec/hooks/net/
      programs that run when the firewall is enabled or disabled

Of the moment, made anew when needed:
  /run/tarn, /var/lock/firewall
      locks, and what "tarnfw base up" has added to the packet filter

All of it as one document, and back again on this machine or another one:

  tarnfw export backup.json
  tarnfw import --dry-run backup.json   what would change
  tarnfw import backup.json             keeps a copy of what it replaces

Let the tool change profiles rather than an editor: "tarnfw profile edit"
stores only what checks, and two commands at once do not lose each other's
changes. Only root may be able to write these directories.
)";

constexpr char kIptables[] = R"(For those who know iptables

"tarnfw base up" adds this to the table "filter", for IPv4 and IPv6, and
"tarnfw base down" takes away what it has added:

  INPUT   -> FIREWALL_RELOADING -> INPUT_FIREWALL   -> yours -> ACCEPT
  FORWARD -> FIREWALL_RELOADING -> FORWARD_FIREWALL -> yours -> ACCEPT

Nothing else is touched: not OUTPUT, no other table, no chain of others.
Every rule goes into both chains, and so does first of all:

  -i lo -j ACCEPT
  -m state --state ESTABLISHED,RELATED -j ACCEPT
  IPv6: neighbour discovery, from link-local addresses where it must be

Then come the rules of "global", those of the other adapters in byte order
of their names, and behind each adapter's its default policy.

  allow tcp 22 from 192.168.1.20 on eth0
      -i eth0 -s 192.168.1.20 -p tcp --dport 22 -j RETURN
  default policy "deny" of eth0
      -i eth0 -j DROP

"allow" is RETURN and not ACCEPT, so what you have behind the chains still
filters. A rule can become several lines: one for each protocol and each
seven ports or ranges of ports.

While a reload runs line by line, the policies of INPUT and FORWARD are DROP
and FIREWALL_RELOADING accepts what is established.

  tarnfw preview                the lines of the active profile
  tarnfw preview --format restore
  tarnfw diff                   the kernel against what should be there
)";

}  // namespace

const std::vector<HelpTopic>& helpTopics() {
    static const std::vector<HelpTopic> topics = {
        {"first-steps", "from an open machine to a first profile in force", kFirstSteps},
        {"profiles", "sets of rules, adapters and default policies", kProfiles},
        {"rules", "the words of a rule, and the order of rules", kRules},
        {"addresses", "addresses, networks, ranges and countries", kAddresses},
        {"services", "names for ports, and services open in every profile", kServices},
        {"trials", "new rules that go away unless you confirm them", kTrials},
        {"exit-status", "what scripts can rely on", kExitStatus},
        {"files", "where everything is, and what to back up", kFiles},
        {"iptables", "how rules become chains", kIptables},
    };
    return topics;
}

}  // namespace tarnfw
