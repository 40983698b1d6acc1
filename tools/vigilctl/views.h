/*
 * The management views of vigilctl as text for a person: aligned tables
 * made from the answers of vigild's `mgmt` command (whose "record" holds
 * the module's output record field by field, under the record's field
 * names) and one line per binding event.  Nothing here talks to vigild:
 * every function takes an answer and gives text, so recorded answers test
 * them.
 */
#ifndef VIGILCTL_VIEWS_H
#define VIGILCTL_VIEWS_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace vigilctl {

using Json = nlohmann::ordered_json;

/* Rows of cells as columns padded to their widest cell, two blanks apart,
 * each line led by `indent`; trailing blanks are left out. */
std::string Table(const std::vector<std::vector<std::string>> &rows,
                  const std::string &indent = "");

/* A port as the management interface names it: by the fabric names of its
 * switch and of the port on it.  `id` is set when the port was given by its
 * id (`byId`); its names then came from vigild. */
struct PortRef {
   bool byId = false;
   uint32_t id = 0;
   std::string fabSwitch;
   std::string fabPort;
   /* "port 0x10 (vs0/16)" or "port vs0/16". */
   std::string Label() const;
   /* "0x10" or "vs0/16": the column head of the statistics. */
   std::string Short() const;
};

/* A port id: decimal or 0x hexadecimal, at most 32 bits. */
bool ParsePortId(const std::string &text, uint32_t *id);
/* PORT of a view: a port id, or SWITCH/PORT (the fabric names, split at
 * the first '/'; neither may be empty).  False with `error` set when it is
 * neither. */
bool ParsePortRef(const std::string &text, PortRef *ref, std::string *error);
/* The methods of a delete, "dhcp,arp,nd,dhcpv6" in any order and case, as
 * the request's bits (DHCP 0x1, ARP 0x2, ND 0x4, DHCPv6 0x8). */
bool ParseMethods(const std::string &text, uint32_t *bits, std::string *error);
/* The names of the bits of ParseMethods, as a person reads them. */
std::string MethodNames(uint32_t bits);
/* A MAC address as six pairs of hex digits separated by ':' or '-'. */
bool IsMac(const std::string &text);
/* An IPv4 or IPv6 address in any text form inet_pton reads. */
bool IsIp(const std::string &text);

/* A status as "Not found (0xbad0003)"; 0 is "ok". */
std::string StatusText(uint64_t status);
/* An address as the module writes it, in the shortest form: IPv6 groups
 * compressed ("2001:db8:0:0:0:0:0:50/64" -> "2001:db8::50/64"); any other
 * text as it is. */
std::string CanonicalIp(const std::string &text);

/* What to print when a management call's record has a status that is not
 * 0: the port, the status and what it means for this callback. */
std::string FailureText(const std::string &label, const std::string &callback,
                        uint64_t status);

/* The views.  `answer` is the whole answer of `mgmt` (its "record" is
 * read); each is called for an answer whose status is 0. */
std::string BindingsView(const std::string &label, const Json &answer, bool v6);
std::string ConfigView(const std::string &label, const Json &answer);
/* One column per port (labels in the order asked), a row per counter; or,
 * with `rows`, one row per port and counter. */
std::string StatsView(const std::vector<std::string> &labels, const Json &answer, bool rows);
std::string WhiteListView(const std::string &label, const Json &answer);
std::string IgnoreListView(const std::string &label, const Json &answer);
std::string BpduView(const std::string &label, const Json &answer);

/* The agent's answers (vigild's apply, policy, conflicts and agent) as
 * text; each for an answer with "ok": true. */
std::string ApplyView(const Json &answer);
std::string PolicyView(const Json &answer);
std::string ConflictsView(const Json &answer);
std::string AgentView(const Json &answer);
/* `fleet bindings`: the fleet's bindings, each with its host. */
std::string FleetBindingsView(const Json &answer);
/* The text of any of the four by its "cmd"; false for another command. */
bool AgentAnswerText(const Json &answer, std::string *text);

/* The counters of the statistics block, in its order (two words each). */
const std::vector<std::string> &StatNames();

/* One line for a binding event of vigild's `events` (a portset message):
 * `clock` (when it was seen), added or removed, the port and its portset,
 * VLAN, MAC, address, discovery method and flags. */
std::string EventLine(const Json &event, const std::string &clock);
/* The name of a discovery method bit (1 DHCP, 2 ARP, 4 static, 8 ND, 16
 * DHCPv6). */
std::string DiscMethodName(uint64_t method);

} // namespace vigilctl

#endif /* VIGILCTL_VIEWS_H */
