#include "cli/helpTopics.h"

namespace tarnfw {
namespace {

constexpr char kFirstSteps[] = R"(First steps

The firewall is off until you enable it. Installing it changes nothing.
Changes need root's rights, and so does seeing what is in force.

  tarnfw base up                add the firewall's chains to the packet
                                filter, and a first profile "default"
                                for this machine's interfaces
  tarnfw profile show default   its rules, in plain words
  tarnfw adapters               the adapters that rules can be for
  tarnfw services               the services that rules can name

Make a profile of your own, and change it while it is not in use:

  tarnfw profile create home    like "default"; --empty: without rules
  tarnfw rule add --profile home --adapter global \
      allow tcp 8443 from 192.168.1.0/24
  tarnfw check home --kernel    is it valid, and does the kernel accept it?

Switch the firewall on. The first profile lets private networks reach file
services, SSH and the web interface, and the address that you were connected
from over SSH; everything else is denied:

  tarnfw enable

Try your own. Unless you confirm in time, the previous rules are restored:

  tarnfw try home --timeout 60

Once confirmed, it is the active profile. Look, and ask:

  tarnfw status
  tarnfw blocked --port tcp/8443
  tarnfw explain --service ssh --from 192.168.1.20
  tarnfw open                   what is open, to whom, and what listens

"tarnfw disable" opens the machine again and keeps the profiles.
"tarnfw enable" says whether the firewall will be in force after a restart; if
not: systemctl enable tarnfw.service
Read on with "tarnfw help rules" and "tarnfw help trials".
)";

constexpr char kProfiles[] = R"(Profiles

A profile is a named set of rules. You can store any number; one is active,
and its rules are in force while the firewall is enabled.

  tarnfw profile list           the active one has a star
  tarnfw profile show home      its rules, with their positions
  tarnfw profile diff travel    what another one opens and closes
  tarnfw profile create work    a new one, like the first one
  tarnfw profile copy home work
  tarnfw profile use work       make it the active one

A profile has, for each adapter, a list of rules and a default policy:

  global        rules for all adapters; they come first
  eth0, ...     rules for one network interface
  pppoe, vpn    rules for the interface of the PPPoE connection, or for all
                interfaces of VPN connections, whatever their names

The first rule that matches a packet decides. If none does, the default
policy of the adapter decides: "tarnfw policy eth0 deny". "global" has none,
because it would decide for every adapter; use a last rule "deny any" there
instead. An adapter with rules and without a default policy gets "allow".

Where "tarnfw base up" has written the first profile, a change of the active
profile of an enabled firewall is applied at once: the settings have the
member "applyChanges". --later only stores it. Elsewhere, "tarnfw reload"
applies it, or --reload with the change.
The apply mode decides whether the rules take effect together or one after
another: "tarnfw apply-mode". Rules of an adapter whose interface does not
exist are skipped. If it appears later, they take effect, mostly within a
second, where the package's udev rule is installed, elsewhere with the next
reload.

"tarnfw profile edit" opens the profile's document in your editor and stores
it only if it is valid.
)";

constexpr char kRules[] = R"(Rules

  tarnfw rule add [--adapter ADAPTER] allow|deny [WHAT] [from|to ADDRESS]

Without --adapter the rule is for every adapter: it is one of "global".
WHAT is one of these, by default "any":
  tcp 22                     a port: tcp, udp, or tcp/udp for both; tcp/22,
                             22/tcp and both 22 are read as well
  tcp 80,443,6000-6010       ports and ranges, without blanks
  udp                        every port
  service ssh,https          services of the catalogue ("tarnfw services")
  icmp, igmp                 a protocol without ports
  any                        everything

ADDRESS is described in "tarnfw help addresses"; the default is "anywhere".
"from" means the sender, "to" the receiver.

  tarnfw rule add allow tcp 8080
  tarnfw rule add --adapter eth0 allow tcp 22 from 192.168.1.0/24
  tarnfw rule add --adapter eth0 allow service smb from 10.0.0.5-10.0.0.9
  tarnfw rule add deny from country CN,RU --log --first
  tarnfw rule insert 1 --adapter eth0 deny from 203.0.113.9 --name nuisance

The order counts: the first rule that matches decides. "rule add" puts a
rule after the others, or with --first before them, and says what it opens
or closes; where an earlier rule shadows it, it says which position would
do. "rule insert" puts it at the given position. Positions are those that
"tarnfw profile show" prints:

  tarnfw rule move 3 1 --adapter eth0
  tarnfw rule off 2 --adapter eth0      keep it, without effect
  tarnfw rule delete 2-3 --adapter eth0
  tarnfw rule delete allow tcp 8080     by its words, or by --name

A denying rule does not cut existing connections. After "allow", a packet
still passes the rules of other programs; "deny" drops it without an answer.
"tarnfw help rule add" lists the options.
)";

constexpr char kAddresses[] = R"(Addresses

After "from" or "to" in a rule:

  192.168.1.20                  one address
  192.168.1.0/24                a network, by its prefix length
  192.168.1.0/255.255.255.0     the same, by its mask
  10.0.0.5-10.0.0.9             a range, including both ends
  2001:db8::/64                 IPv6 in all these forms
  country CN,RU                 everybody in these countries
  anywhere                      any address; the same as leaving it out

A rule with an address is for the family of that address. A rule without one
is for IPv4 and IPv6; the options --v4 and --v6 limit it to one. So a rule
that allows an IPv4 address says nothing about IPv6: the same client needs
another rule for IPv6.

Countries need a database in /usr/share/xt_geoip and the kernel's geoip
match. "tarnfw geoip list" lists the countries; "tarnfw geoip check
203.0.113.9" shows the country of an address. A country without data for a
family is left out in that family; a rule without any country left has no
effect there.

Host names are not accepted: a rule could not follow their changes.
)";

constexpr char kServices[] = R"(Services

A service is a name for ports: "allow service smb" opens the ports of file
sharing, and you need not know them.

  tarnfw services               names, titles and ports
  tarnfw services 'smb*'        those whose name or title matches
  tarnfw rule add --adapter eth0 allow service smb,nfs from 192.168.1.0/24

The catalogue consists of the files in /usr/tarn/etc.defaults/services.d,
which packages install, and /usr/tarn/etc/services.d, which is yours: a file
there adds or replaces a service. Such a file holds

  {"name": "web_admin", "title": "Administration over the web",
   "dst": {"protocol": "tcp", "ports": ["8443", "9000-9010"]}}

After a change, "tarnfw service update" updates all profiles. A service that
is no longer in the catalogue is removed from the rules.

A service can be allowed, or denied, in every profile:

  tarnfw service reserve ssh allow --adapter eth0
  tarnfw service release ssh

Reserved rules come before all others of the adapter. "release" is the
inverse, and leaves your own rules alone; with --everywhere it removes the
service from those, too, after asking.

For the options see "tarnfw services --help" and, for instance, "tarnfw help
service reserve".
)";

constexpr char kTrials[] = R"(Trials

A rule can cut the connection that you type it over. A trial puts a profile
in force for a while, and restores the previous rules unless you confirm.

  tarnfw profile copy default home      change a copy, not the active one
  tarnfw rule add --profile home --adapter eth0 deny tcp 23
  tarnfw try home --timeout 60

Now open a new connection to see whether you can still reach the machine.
  Enter in the first terminal, or "tarnfw try --confirm" in another one,
  keeps the rules and makes the profile the active one.
  Doing nothing, Ctrl-C, or "tarnfw try --cancel" restores the previous
  rules.

They are also restored when the terminal is lost or the command is killed: a
separate process watches the trial and outlives both.

During a trial, existing connections pass only if the rules allow them. If
your terminal keeps answering, the new rules let it in; if it freezes, wait
until the time is over.

Only one trial runs at a time. Until it ends, commands that would apply other
rules are refused, as are "base up" and "base down", and the profile is also
stored under a name that begins with ".test_". "tarnfw disable" ends a trial
at once, without any rules.
"tarnfw status" names a trial that a crash has left; "tarnfw try --cancel" or
"tarnfw reload" ends it.

Before a trial, "tarnfw check home --kernel" lists the profile's errors, and
"tarnfw preview home" shows what would run. Neither changes anything.
)";

constexpr char kExitStatus[] = R"(Exit status

  0    done
  1    failed; the reason is on standard error
  2    wrong usage; the message suggests the nearest command
  3    an invalid document, profile or rule
  4    not root, which changes need; status, blocked, explain and open then
       answer from the files alone: only root can see what is in force
  5    unknown: there is no such profile, rule, adapter, service, country or
       trial, or none at all
  10   a negative answer:
         blocked, explain   blocked somewhere, or from some addresses
         diff               the kernel does not hold what it should
         profile diff       the profiles do not mean the same
  11   status, blocked, explain, open: the kernel does not do what is stored

So a script can check whether a service is open before it relies on it:

  if tarnfw blocked --service nfs --adapter eth0 >/dev/null; then
      echo "nfs is open on eth0"
  fi

"tarnfw geoip check" ends with 1 for an address that is in no country.

Errors go to standard error, one line each that begins with "tarnfw:". Lines
of the library, with the place where something failed, may come before it.
So may the findings of "import", without "tarnfw:": one line each that
begins with the document's name, like those of "check".
Answers go to standard output, as text for people; with --json as one
document whose keys stay the same from version to version.
Colours and progress appear only on terminals, and no colour is used if
NO_COLOR is set.
)";

constexpr char kFiles[] = R"(Files

Yours; back these up:
  /usr/tarn/etc/firewall.d/*.json
      the profiles, one per file, found by the "name" inside
  /usr/tarn/etc/firewall.d/firewall_settings.json
      whether the firewall is enabled ("status") and which profile is
      active ("profile"). Changing it by hand changes nothing in the kernel.
  /usr/tarn/etc/services.d/*.json
      services that you have added or replaced

The system's:
  /usr/tarn/etc.defaults/firewall_default_profile.json
      a first profile for storage systems that bring their own tool
  /usr/tarn/etc.defaults/services.d/*.json
      the catalogue of services
  /usr/tarn/etc.defaults/iptables_modules_list
      the kernel modules that the firewall loads
  /usr/share/xt_geoip/*.iv4, *.iv6   the addresses of countries
  /usr/tarn/libexec/hooks/net/
      programs that run when the firewall is enabled or disabled

Temporary, created again when needed:
  /run/tarn, /var/lock/firewall
      locks, and what "tarnfw base up" has added to the packet filter

All of it as one document, and back on this machine or another one:

  tarnfw export backup.json
  tarnfw import --dry-run backup.json   what would change
  tarnfw import backup.json

What imports replaced is in /usr/tarn/etc/firewall.d.backup/, and what the
last 50 changes replaced is in /usr/tarn/etc/firewall.d/.history/:

  tarnfw history                        what was changed, by which command
  tarnfw undo                           put back what the last one replaced

Change profiles with the tool rather than with an editor: "tarnfw profile
edit" stores only valid documents, and two commands at once do not lose each
other's changes. Only root may have write access to these directories.
)";

constexpr char kIptables[] = R"(For those who know iptables

"tarnfw base up" adds this to the table "filter", for IPv4 and IPv6, and
"tarnfw base down" removes what it has added:

  INPUT   -> FIREWALL_RELOADING -> INPUT_FIREWALL   -> yours -> ACCEPT
  FORWARD -> FIREWALL_RELOADING -> FORWARD_FIREWALL -> yours -> ACCEPT

Nothing else is touched: not OUTPUT, no other table, no chain of others.
Every rule goes into both chains. These lines come first:

  -i lo -j ACCEPT
  -m state --state ESTABLISHED,RELATED -j ACCEPT
  IPv6: neighbour discovery, from link-local addresses where required

Then come the rules of "global", then those of the other adapters in byte
order of their names, and after each adapter's rules its default policy.

  allow tcp 22 from 192.168.1.20 on eth0
      -i eth0 -s 192.168.1.20 -p tcp --dport 22 -j RETURN
  default policy "deny" of eth0
      -i eth0 -j DROP

"allow" is RETURN and not ACCEPT, so your own rules after the chains still
filter. A rule can become several lines: one for each protocol and each
seven ports or ranges of ports.

During a reload in apply mode "lines", the policies of INPUT and FORWARD are
DROP, and FIREWALL_RELOADING accepts established connections.

  tarnfw preview                the lines of the active profile
  tarnfw preview --format restore
  tarnfw diff                   compare the kernel with the profile
  tarnfw report --html FILE     a page with all that may be reached
)";

}  // namespace

const std::vector<HelpTopic>& helpTopics() {
    static const std::vector<HelpTopic> topics = {
        {"first-steps", "from installing to a first profile in force", kFirstSteps},
        {"profiles", "sets of rules, adapters and default policies", kProfiles},
        {"rules", "the words of a rule, and the order of rules", kRules},
        {"addresses", "addresses, networks, ranges and countries", kAddresses},
        {"services", "names for ports, and services allowed in every profile", kServices},
        {"trials", "new rules for a while, unless you confirm them", kTrials},
        {"exit-status", "what scripts can rely on", kExitStatus},
        {"files", "where everything is, and what to back up", kFiles},
        {"iptables", "how rules become chains", kIptables},
    };
    return topics;
}

}  // namespace tarnfw
