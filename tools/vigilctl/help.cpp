#include "help.h"

#include <utility>

namespace vigilctl {

namespace {

struct Page {
   std::string name;
   std::string summary;
   std::vector<std::string> synopsis;
   std::string description; /* paragraphs separated by blank lines */
   std::vector<std::pair<std::string, std::string>> options;
   std::vector<std::pair<std::string, std::string>> examples; /* command, what it does */
   std::string exitStatus;
};

const char kPortText[] =
    "PORT is a port id, decimal or 0x hexadecimal (16, 0x10). The management interface names "
    "a port by the fabric names of its switch and of the port on that switch; vigilctl asks "
    "vigild for them: the switch is the port's portset (read from `state PORT portsetName`, "
    "or from `switch` for an attached port without a filter) and the port is its id in "
    "decimal, the names that `port add` gives when it is given no fabswitch= or fabport=. "
    "For a port added with other names give them with --fabswitch and --fabport, or give "
    "PORT as SWITCH/PORT (split at the first '/').";

const char kViewExit[] =
    "0  the module answered with status 0.\n"
    "1  vigild refused the command (\"ok\": false), or the module answered another status "
    "(a port it does not know, a port without a filter, a list that is off); the reason is "
    "written to standard error. With --json the answer is printed all the same.\n"
    "2  a usage error, or no answer from vigild (no socket, the connection closed, "
    "--timeout passed).";

const std::pair<std::string, std::string> kJson = {
    "--json", "print vigild's answer to the `mgmt` call, one line of JSON, instead of the table: "
              "\"status\" (the record's status) and \"record\" (the output record field by "
              "field under the record's field names)."};
const std::pair<std::string, std::string> kFabSwitch = {
    "--fabswitch NAME", "the fabric name of the port's switch, instead of asking vigild."};
const std::pair<std::string, std::string> kFabPort = {
    "--fabport NAME", "the fabric name of the port on its switch, instead of its decimal id."};
const std::pair<std::string, std::string> kHelp = {"-h, --help", "show this page."};
const char kGlobal[] =
    "The options of vigilctl itself (--control PATH, --timeout SECONDS, --json) go before "
    "COMMAND; see vigilctl --help.";

std::vector<Page> MakePages() {
   std::vector<Page> pages;
   pages.push_back(Page{
       "vigilctl",
       "the control client of vigild",
       {"vigilctl [--control PATH] [--timeout SECONDS] [--text] COMMAND [ARG ...]",
        "vigilctl [--control PATH] [--timeout SECONDS] [--json] VIEW PORT [OPTION ...]",
        "vigilctl [--control PATH] watch [--json] [--all] [--count N] [--duration SECONDS]",
        "vigilctl -- COMMAND [ARG ...]",
        "vigilctl help [COMMAND]"},
       "vigilctl sends commands to vigild on its control socket and prints the answers.\n\n"
       "Any command of vigild's language (the vigilsim commands and vigild's own: state, "
       "switch, messages, events, port, security, discovery, save, restore, upgrade, stop, "
       "...) is passed through: the words are joined into one command line (a word with "
       "blanks, quotes or backslashes is quoted), sent, and the JSON answer is printed as it "
       "came, or with --text as readable text. `upgrade --module PATH` sends `upgrade "
       "module=PATH`.\n\n"
       "The views read a port's state through the module's management interface (vigild's "
       "`mgmt` command) and print aligned tables, or the JSON answer with --json: bindings, "
       "config, stats, whitelist, ignorelist, bpdu; delete and delete-on-expiry change "
       "state through it; watch prints binding events as they happen. Each has a page of "
       "its own (vigilctl COMMAND --help). `bindings` and `stats` are also vigilsim "
       "commands, and `ignorelist PORTID ENTRIES` writes a port's ignore list: vigilctl "
       "passes `ignorelist` on when it has ENTRIES, and anything after `--` is passed on "
       "as it is (vigilctl -- bindings 16 prints vigilsim's bindings).\n\n"
       "The agent's commands are vigild's and print JSON, or tables with --text: apply "
       "FILE, policy PORTID, conflicts, agent (each has a page).",
       {{"--control PATH", "vigild's control socket; else $VIGILD_CONTROL, else /run/vigild.sock."},
        {"--timeout SECONDS", "how long to wait for each answer (default 30)."},
        {"--text", "print the answer of a passed-on command as readable text instead of JSON."},
        {"--json", "print the JSON answer of a view instead of its table."},
        kHelp},
       {{"vigilctl state 16", "a port's filter record, as JSON"},
        {"vigilctl --text switch", "vigild's ports and learnt addresses as tables"},
        {"vigilctl bindings 16", "the IPv4 bindings of port 16 as a table"},
        {"vigilctl --json config 0x10", "its configuration as the module's record, in JSON"},
        {"vigilctl watch", "binding events as they happen"},
        {"vigilctl -- bindings 16", "vigilsim's own bindings command"},
        {"vigilctl --text conflicts", "the bindings the agent refused"}},
       "For a passed-on command: 0 when the answer has \"ok\": true, 1 when it has \"ok\": "
       "false, 2 for a usage error or when there is no answer. For the views see their pages."});

   pages.push_back(Page{
       "bindings",
       "a port's bindings as the management interface lists them",
       {"vigilctl bindings PORT [--v6] [--json] [--fabswitch NAME] [--fabport NAME]"},
       "Lists the bindings of the port's database: the IPv4 ones (`mgmt listVmi`), or with "
       "--v6 the IPv6 ones (`mgmt listV6Vmi`), one row each, the running ones first, then "
       "the expired ARP or ND bindings that are kept while delete-on-expiry is off.\n\n"
       "IPv4 columns: # (the row's index), VLAN, MAC, IP, METHOD (DHCP Snooping, ARP "
       "Snooping, Static Entry), REMAINING (s) (seconds until it expires, 0 once it has; "
       "N/A for static bindings), and for DHCP bindings CLIENT MAC, CLIENT ID LEN, SERVER "
       "and LEASE (s) (N/A for the others). IPv6 columns: #, VLAN, MAC, IP, METHOD (ND "
       "Snooping, DHCPv6 Snooping), REMAINING (s), and for DHCPv6 bindings IAID (hex), "
       "SERVER, VALID (s), PREFERRED (s), CLIENT ID LEN and CLIENT ID (its first 50 bytes "
       "in hex). IPv6 addresses are shown compressed; --json shows them as the module "
       "wrote them. The record holds at most 384 IPv4 and 30 IPv6 rows.\n\n" +
           std::string(kPortText),
       {{"--v6", "the IPv6 bindings (ND and DHCPv6) instead of the IPv4 ones."},
        kJson, kFabSwitch, kFabPort, kHelp},
       {{"vigilctl bindings 16", "the IPv4 bindings of port 16"},
        {"vigilctl bindings 0x10 --v6", "its IPv6 bindings"},
        {"vigilctl bindings vs0/vm1-eth0", "a port added with fabport=vm1-eth0"},
        {"vigilctl --json bindings 16", "the management record as JSON"}},
       kViewExit});

   pages.push_back(Page{
       "config",
       "a port's configuration and the use of its databases",
       {"vigilctl config PORT [--json] [--fabswitch NAME] [--fabport NAME]"},
       "Shows what the module reports of the port's configuration (`mgmt getConfig`): the "
       "features switched on (discovery methods, wardens, the BPDU filter with its bitmap, "
       "the server and client blocks, RA guard), the rate limits, the module-wide "
       "delete-on-expiry setting, the ARP and ND life times; then a table of the "
       "databases: the bindings of each method in use against their limits, the pending "
       "DHCP and DHCPv6 requests, and the bytes their client ids hold.\n\n" +
           std::string(kPortText),
       {kJson, kFabSwitch, kFabPort, kHelp},
       {{"vigilctl config 16", "port 16's configuration"},
        {"vigilctl --json config 16", "the record, field by field"}},
       kViewExit});

   pages.push_back(Page{
       "stats",
       "the filter's counters of one or more ports",
       {"vigilctl stats PORT... [--rows] [--json] [--fabswitch NAME]"},
       "Reads the statistics blocks of up to 16 ports in one call (`mgmt getStatsBatch`) and "
       "prints one row per counter with one column per port, in the order given; or, with "
       "--rows, one row per port and counter (PORT, COUNTER, VALUE), which suits grep and "
       "awk. A port whose block could not be read has a status row and no counters; the "
       "others are shown all the same.\n\n" +
           std::string(kPortText) + " --fabswitch applies to every port given by its id.",
       {{"--rows", "one row per port and counter instead of one column per port."},
        kJson, kFabSwitch, kHelp},
       {{"vigilctl stats 16 32", "the counters of ports 16 and 32 side by side"},
        {"vigilctl stats 16 --rows | grep Warden", "the warden counters of port 16"}},
       "0  every port's block was read.\n"
       "1  vigild refused the command, or the module answered another status for the call "
       "or for a port (the others are shown).\n"
       "2  a usage error (more than 16 ports among them), or no answer from vigild."});

   pages.push_back(Page{
       "whitelist",
       "a port's switch and port white lists",
       {"vigilctl whitelist PORT [--json] [--fabswitch NAME] [--fabport NAME]"},
       "Shows the entries of the switch white list and of the port white list that the "
       "port's security property gave it (`mgmt getWhiteList`), one row each: LIST (switch "
       "or port), VLAN (0: any), MAC (Any when the entry names none), IP (with its prefix "
       "length; Any when it names none). What a VM sends must match the lists of the "
       "wardens switched on (see config).\n\n" +
           std::string(kPortText),
       {kJson, kFabSwitch, kFabPort, kHelp},
       {{"vigilctl security 16 features=0x40 port=\"ip=192.0.2.10/32\"",
         "write a port white list"},
        {"vigilctl whitelist 16", "and read it back"}},
       kViewExit});

   pages.push_back(Page{
       "ignorelist",
       "a port's ignore list",
       {"vigilctl ignorelist PORT [--json] [--fabswitch NAME] [--fabport NAME]",
        "vigilctl ignorelist PORTID ENTRIES"},
       "Shows the port's ignore list (`mgmt getIgnoreList`): the addresses whose bindings the "
       "port does not learn, one row each with VLAN, MAC (Any when none) and IP (as a host "
       "address, /32 or /128).\n\n"
       "With ENTRIES after the port, the command is vigild's own: it writes the ignore list "
       "(entries separated by ';', each vlan=N, mac=MAC, ip=ADDR) and prints its JSON "
       "answer.\n\n" +
           std::string(kPortText),
       {kJson, kFabSwitch, kFabPort, kHelp},
       {{"vigilctl ignorelist 16 \"ip=192.0.2.99;ip=2001:db8::99\"", "write the ignore list"},
        {"vigilctl ignorelist 16", "and read it back"}},
       kViewExit});

   pages.push_back(Page{
       "bpdu",
       "the BPDU destinations a port filters",
       {"vigilctl bpdu PORT [--json] [--fabswitch NAME] [--fabport NAME]"},
       "Lists the destination MAC addresses of the bridge protocol frames that the port's "
       "BPDU filter drops (`mgmt getFilteredBpduMacs`), one per row: the supported addresses "
       "less those that the security property's bpduExclude= leaves out. When the BPDU "
       "filter is off on the port the module answers \"Not enabled\" (exit status 1).\n\n" +
           std::string(kPortText),
       {kJson, kFabSwitch, kFabPort, kHelp},
       {{"vigilctl security 16 features=0x4 bpduExclude=01:80:c2:00:00:00",
         "the BPDU filter on, the spanning tree address excluded"},
        {"vigilctl bpdu 16", "the addresses it filters"}},
       kViewExit});

   pages.push_back(Page{
       "delete",
       "delete bindings of a port",
       {"vigilctl delete PORT --mac MAC --ip ADDR [--vlan N]",
        "vigilctl delete PORT --methods METHOD[,METHOD...]",
        "vigilctl delete PORT --all",
        "    [--json] [--fabswitch NAME] [--fabport NAME]"},
       "Deletes bindings of the port's database through the management interface (`mgmt "
       "delVmi`), in one of three ways:\n\n"
       "One binding (op 2): the binding of VLAN N (default 0), MAC and address; an IPv4 "
       "address names an IPv4 binding, an IPv6 address an IPv6 one. A static binding is "
       "deleted too.\n\n"
       "By method (op 3): every binding that these discovery methods made: dhcp, arp, nd, "
       "dhcpv6 (the request's bits 0x1, 0x2, 0x4, 0x8).\n\n"
       "All (op 1): every binding of both families but the static ones.\n\n"
       "Each deletion is announced by portdb.entry.removed (see watch). The module answers "
       "0 whether or not a binding matched; bindings list what is left.\n\n" +
           std::string(kPortText),
       {{"--mac MAC", "the binding's MAC address (with --ip)."},
        {"--ip ADDR", "the binding's IPv4 or IPv6 address (with --mac)."},
        {"--vlan N", "the binding's VLAN, 0 to 4095 (default 0)."},
        {"--methods LIST", "the discovery methods whose bindings go: dhcp, arp, nd, dhcpv6, "
                           "separated by commas."},
        {"--all", "every binding but the static ones."},
        kJson, kFabSwitch, kFabPort, kHelp},
       {{"vigilctl delete 16 --mac 02:00:00:00:02:0a --ip 192.0.2.50", "one binding"},
        {"vigilctl delete 16 --methods arp,nd", "the snooped ARP and ND bindings"},
        {"vigilctl delete 16 --all", "all but the static ones"}},
       kViewExit});

   pages.push_back(Page{
       "delete-on-expiry",
       "show or set the module-wide delete-on-expiry switch",
       {"vigilctl delete-on-expiry [on|off] [--json]"},
       "With on (the module's default) an ARP or ND binding whose time has passed is "
       "deleted; with off it is kept in the port's database as expired (listed by bindings "
       "with 0 seconds remaining, counted by config) until the address is seen again or "
       "the binding is deleted. The switch is the module's, for every port; it is set "
       "through the management interface (`mgmt delExpiry value=1|0`).\n\n"
       "Without an argument, the current setting is read from the module (`module "
       "delOnExpiry`).",
       {{"--json", "print vigild's JSON answer instead of the sentence."}, kHelp},
       {{"vigilctl delete-on-expiry off", "keep expired ARP and ND bindings"},
        {"vigilctl delete-on-expiry", "show the setting"}},
       kViewExit});

   pages.push_back(Page{
       "watch",
       "binding events as they happen",
       {"vigilctl watch [--json] [--all] [--count N] [--duration SECONDS] [--interval MS]"},
       "Prints the module's binding events, the portset messages portdb.entry.added and "
       "portdb.entry.removed, one line each as they come: the time vigilctl saw it, added "
       "or removed, the port and its portset, VLAN, MAC, address, the discovery method, "
       "and bound (DHCP, static and DHCPv6 bindings) or gratuitous (an ARP binding learnt "
       "from a gratuitous ARP). It runs until interrupted (SIGINT or SIGTERM, exit status "
       "0), or until --count or --duration ends it.\n\n"
       "vigild keeps the newest 20000 messages in a journal, each with a sequence number. "
       "watch keeps one connection open and asks for the messages after the last one it "
       "printed every --interval milliseconds (vigild's `events after=SEQ`). Reading them "
       "this way takes nothing away: `messages`, other watchers and the lab see every "
       "message too. When messages it had not printed were dropped from the journal "
       "meanwhile, watch says how many on standard error.",
       {{"--json", "one JSON object per event instead: the portset message with its \"seq\"."},
        {"--all", "begin with the messages vigild still keeps, not with the next one."},
        {"--count N", "end after N events."},
        {"--duration SECONDS", "end after this long."},
        {"--interval MS", "how often to ask vigild (default 200, at least 10)."},
        kHelp},
       {{"vigilctl watch", "follow the binding events"},
        {"vigilctl watch --count 1 --duration 30", "wait up to 30 s for the next one"},
        {"vigilctl watch --json | jq .ip", "the addresses, as they come"}},
       "0  interrupted, or --count or --duration reached.\n"
       "1  vigild refused `events` (a vigild without it).\n"
       "2  a usage error, or vigild went away or did not answer."});

   pages.push_back(Page{
       "upgrade",
       "replace the running module by a new copy",
       {"vigilctl upgrade [--module PATH]"},
       "Sends `upgrade module=PATH` (or `upgrade` without --module, which loads the running "
       "file again) and prints the answer. PATH is opened by vigild: a relative path is "
       "taken from vigild's working directory.",
       {{"--module PATH", "the module file of the new copy."}, kHelp},
       {{"vigilctl --text upgrade", "the same module again, the result as text"}},
       "0 when the answer has \"ok\": true, 1 when it has \"ok\": false, 2 for a usage "
       "error or no answer."});

   const char kAgentExit[] =
       "0 when the answer has \"ok\": true, 1 when it has \"ok\": false, 2 for a usage "
       "error or no answer.";
   const std::pair<std::string, std::string> kText = {
       "--text", "(before COMMAND) a table for a person instead of the JSON answer."};
   pages.push_back(Page{
       "apply",
       "make a policy file the one in force",
       {"vigilctl [--text] apply FILE"},
       "vigild's agent reads FILE (TOML, see docs/agent.md) and applies it now; it becomes "
       "the policy that SIGHUP reads again. Only the ports whose effective keys changed are "
       "written again, and no binding is lost. A file that fails to parse or to validate is "
       "refused whole: nothing of it is applied, the previous policy stays, and \"error\" "
       "names the file, the line and the key. A relative FILE is made absolute from "
       "vigilctl's working directory, since vigild opens it.\n\n"
       "The answer: \"changed\", the ids of the ports whose policy changed, and \"file\".",
       {kText, kHelp},
       {{"vigilctl apply examples/policy.toml", "apply the example policy"},
        {"vigilctl --text apply /etc/vigild/policy.toml", "the ports it changed, readably"}},
       kAgentExit});
   pages.push_back(Page{
       "policy",
       "the policy in force for one port",
       {"vigilctl [--text] policy PORTID"},
       "Shows the port's effective keys: each from its [interface.NAME] table, else its "
       "[port.ID] table, else [defaults], else the built-in value. \"enabled\" is null when "
       "no table sets it: the agent then leaves the port as the start-up scripts made it.\n\n"
       "The answer: \"policy\" (enabled, discovery, expiry-minutes, features, rate-limits, "
       "bpdu-exclude, ignore, allow, learn, share), \"portID\" and \"file\".",
       {kText, kHelp},
       {{"vigilctl --text policy 16", "port 16's keys as a table"}},
       kAgentExit});
   pages.push_back(Page{
       "conflicts",
       "the bindings the agent refused",
       {"vigilctl [--text] conflicts"},
       "Lists each learnt binding that the agent did not admit because another port of the "
       "same VLAN holds its address (and the two ports do not both share): the claimant "
       "(vlanId, ip, mac, portID) and the holder (heldBy: portID, mac, and host for a holder "
       "on another host). A conflict ends when either binding ends; the claimant is then "
       "admitted if it is still there.",
       {kText, kHelp},
       {{"vigilctl --text conflicts", "the conflicts as a table"}},
       kAgentExit});
   pages.push_back(Page{
       "agent",
       "the agent's counters and pending writes",
       {"vigilctl [--text] agent"},
       "Shows what the agent has done since vigild started: \"writes\" (security property "
       "writes), \"pendingWrites\" (ports whose white list waits for its next write; a "
       "port is written at most once per 100 ms), \"admitted\", \"conflicts\", "
       "\"restored\" (bindings brought back from the state directory), \"withdrawn\", "
       "\"writeErrors\", \"reloads\", \"bindings\" (admitted now) and \"policy\" (the "
       "file in force, or null).",
       {kText, kHelp},
       {{"vigilctl agent", "the counters as JSON"}},
       kAgentExit});
   pages.push_back(Page{
       "fleet",
       "the bindings of every host of the fleet",
       {"vigilctl [--text] fleet bindings [--vlan N]"},
       "With a [fleet] in the policy, each host's agent publishes the bindings it admits in "
       "etcd, and refuses a binding whose address another host holds for another MAC. This "
       "lists the fleet's bindings as this host last read them (every second while etcd "
       "answers), each with the host that holds it; --vlan N keeps one VLAN's.\n\n"
       "The answer: \"bindings\", each with vlanId, ip, mac, host, portID, method and "
       "expiryTs. Without a [fleet] the answer is an error.",
       {kText, {"--vlan N", "only the bindings of VLAN N."}, kHelp},
       {{"vigilctl --text fleet bindings", "the fleet's bindings as a table"},
        {"vigilctl fleet bindings --vlan 10", "VLAN 10's, as JSON"}},
       kAgentExit});
   return pages;
}

const std::vector<Page> &Pages() {
   static const std::vector<Page> pages = MakePages();
   return pages;
}

/* Paragraphs filled to 76 columns behind an indent; a line's continuation
 * lines behind `next` (the same indent when empty). */
std::string Fill(const std::string &text, const std::string &indent,
                 const std::string &nextIndent = "") {
   const std::string &next = nextIndent.empty() ? indent : nextIndent;
   std::string out;
   size_t start = 0;
   while (start <= text.size()) {
      size_t nl = text.find('\n', start);
      std::string line = text.substr(start, nl == std::string::npos ? std::string::npos
                                                                    : nl - start);
      start = nl == std::string::npos ? text.size() + 1 : nl + 1;
      if (line.empty()) {
         out += "\n";
         continue;
      }
      std::string current = indent;
      size_t lead = indent.size();
      size_t pos = 0;
      while (pos < line.size()) {
         size_t blank = line.find(' ', pos);
         std::string word = line.substr(pos, blank == std::string::npos ? std::string::npos
                                                                        : blank - pos);
         pos = blank == std::string::npos ? line.size() : blank + 1;
         if (current.size() > lead && current.size() + 1 + word.size() > 76) {
            out += current + "\n";
            current = next;
            lead = next.size();
         }
         current += (current.size() > lead ? " " : "") + word;
      }
      out += current + "\n";
   }
   return out;
}

std::string Render(const Page &p) {
   std::string out = "NAME\n";
   std::string name = p.name == "vigilctl" ? "vigilctl" : "vigilctl " + p.name;
   out += "    " + name + " - " + p.summary + "\n\nSYNOPSIS\n";
   for (const std::string &s : p.synopsis) out += "    " + s + "\n";
   out += "\nDESCRIPTION\n" + Fill(p.description, "    ");
   if (p.name == "vigilctl") {
      out += "\nCOMMANDS WITH A PAGE OF THEIR OWN\n";
      for (const Page &other : Pages()) {
         if (other.name == "vigilctl") continue;
         std::string head = "    " + other.name;
         head += std::string(head.size() < 24 ? 24 - head.size() : 1, ' ');
         out += head + other.summary + "\n";
      }
   }
   out += "\nOPTIONS\n";
   for (const auto &[option, text] : p.options) {
      out += "    " + option + "\n" + Fill(text, "        ");
   }
   if (p.name != "vigilctl") out += Fill(kGlobal, "    ");
   out += "\nEXAMPLES\n";
   for (const auto &[command, text] : p.examples) {
      out += "    " + command + "\n" + Fill(text, "        ");
   }
   out += "\nEXIT STATUS\n" + Fill(p.exitStatus, "    ", "       ");
   return out;
}

} // namespace

const std::vector<std::string> &HelpTopics() {
   static const std::vector<std::string> topics = [] {
      std::vector<std::string> names;
      for (const Page &p : Pages()) {
         if (p.name != "vigilctl") names.push_back(p.name);
      }
      return names;
   }();
   return topics;
}

bool ManPage(const std::string &command, std::string *text) {
   std::string name = command.empty() ? "vigilctl" : command;
   for (const Page &p : Pages()) {
      if (p.name == name) {
         *text = Render(p);
         return true;
      }
   }
   return false;
}

} // namespace vigilctl
