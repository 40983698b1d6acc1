/*
 * Script lines and values of vigilsim: tokens, numbers, byte strings,
 * addresses and key=value options, and the texts of addresses and bytes in
 * the output.
 */
#ifndef VIGILSIM_SCRIPT_H
#define VIGILSIM_SCRIPT_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace vigilsim {

/* A command that the tool cannot carry out: bad syntax, unknown port, a
 * missing file.  The runner adds the script's name and line. */
struct ToolError : std::runtime_error {
   using std::runtime_error::runtime_error;
};

struct Token {
   std::string text;
   bool quoted = false; /* the whole token was one double-quoted string */
};

/* Splits a line into blank-separated tokens.  A double-quoted part may hold
 * blanks and the escapes \" \\ \n \xHH.  Throws ToolError. */
std::vector<Token> Tokenize(const std::string &line);

/* True for lines without a command: blank, or '#' as first non-blank. */
bool IsBlankOrComment(const std::string &line);

/* Numbers: decimal or 0x hexadecimal; `what` names the value in errors. */
uint64_t ParseUnsigned(const std::string &text, const std::string &what,
                       uint64_t max = UINT64_MAX);
int64_t ParseSigned(const std::string &text, const std::string &what);
double ParseSeconds(const std::string &text, const std::string &what);
bool ParseBool(const std::string &text, const std::string &what); /* 0 or 1 */

/* BYTES: hex:..., text:WORD, a quoted token, file:PATH or empty. */
std::vector<uint8_t> ParseBytes(const Token &token);

void ParseMac(const std::string &text, uint8_t out[6]);
bool TryParseIpv4(const std::string &text, uint8_t out[4]);
bool TryParseIpv6(const std::string &text, uint8_t out[16]);

std::string MacText(const uint8_t *mac);
std::string Ipv4Text(const uint8_t *ip);
std::string Ipv6Text(const uint8_t *ip);
std::string HexText(const void *data, size_t len);
std::string HexNumber(uint64_t value); /* 0x30 */

/* The arguments of a command after its command words: positional tokens in
 * order and key=value options.  A token is an option when it is not quoted
 * and begins with an identifier and '='; its key must be one of `allowed`. */
struct Args {
   std::string cmd;
   std::vector<Token> positional;
   std::map<std::string, std::string> options;

   bool Has(const std::string &key) const { return options.count(key) != 0; }
   std::optional<std::string> Get(const std::string &key) const;
   uint64_t Unsigned(const std::string &key, uint64_t def,
                     uint64_t max = UINT64_MAX) const;
   bool Bool(const std::string &key, bool def) const;
   /* Requires between min and max positional tokens. */
   void Expect(size_t min, size_t max, const std::string &usage) const;
};

Args SplitArgs(const std::string &cmd, const std::vector<Token> &tokens,
               size_t first, const std::set<std::string> &allowed);

} // namespace vigilsim

#endif /* VIGILSIM_SCRIPT_H */
