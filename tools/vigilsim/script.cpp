#include "script.h"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace vigilsim {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

int HexDigit(char c) {
   if (c >= '0' && c <= '9') return c - '0';
   if (c >= 'a' && c <= 'f') return c - 'a' + 10;
   if (c >= 'A' && c <= 'F') return c - 'A' + 10;
   return -1;
}

bool IsIdentifier(const std::string &s) {
   if (s.empty() || !(std::isalpha((unsigned char)s[0]) || s[0] == '_')) return false;
   for (char c : s) {
      if (!(std::isalnum((unsigned char)c) || c == '_')) return false;
   }
   return true;
}

} // namespace

std::vector<Token> Tokenize(const std::string &line) {
   std::vector<Token> tokens;
   size_t i = 0;
   while (i < line.size()) {
      while (i < line.size() && IsBlank(line[i])) i++;
      if (i >= line.size()) break;
      Token tok;
      bool startsQuoted = line[i] == '"';
      int quotedParts = 0;
      bool plainParts = false;
      while (i < line.size() && !IsBlank(line[i])) {
         if (line[i] != '"') {
            tok.text += line[i++];
            plainParts = true;
            continue;
         }
         quotedParts++;
         i++;
         bool closed = false;
         while (i < line.size()) {
            char c = line[i++];
            if (c == '"') {
               closed = true;
               break;
            }
            if (c != '\\') {
               tok.text += c;
               continue;
            }
            if (i >= line.size()) break;
            char e = line[i++];
            if (e == '"' || e == '\\') {
               tok.text += e;
            } else if (e == 'n') {
               tok.text += '\n';
            } else if (e == 'x') {
               int hi = i < line.size() ? HexDigit(line[i]) : -1;
               int lo = i + 1 < line.size() ? HexDigit(line[i + 1]) : -1;
               if (hi < 0 || lo < 0) {
                  throw ToolError("bad escape \\x: two hex digits must follow");
               }
               tok.text += static_cast<char>(hi * 16 + lo);
               i += 2;
            } else {
               throw ToolError(std::string("unknown escape \\") + e +
                               " (use \\\" \\\\ \\n or \\xHH)");
            }
         }
         if (!closed) throw ToolError("unterminated double quote");
      }
      tok.quoted = startsQuoted && quotedParts == 1 && !plainParts;
      tokens.push_back(std::move(tok));
   }
   return tokens;
}

bool IsBlankOrComment(const std::string &line) {
   for (char c : line) {
      if (IsBlank(c)) continue;
      return c == '#';
   }
   return true;
}

uint64_t ParseUnsigned(const std::string &text, const std::string &what,
                       uint64_t max) {
   std::string digits = text;
   int base = 10;
   if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
      digits = digits.substr(2);
      base = 16;
   }
   if (digits.empty()) throw ToolError("bad " + what + " '" + text + "': not a number");
   uint64_t value = 0;
   for (char c : digits) {
      int d = HexDigit(c);
      if (d < 0 || d >= base) {
         throw ToolError("bad " + what + " '" + text + "': not a number");
      }
      if (value > (UINT64_MAX - (uint64_t)d) / (uint64_t)base) {
         throw ToolError("bad " + what + " '" + text + "': too large");
      }
      value = value * base + d;
   }
   if (value > max) {
      throw ToolError("bad " + what + " '" + text + "': at most " + std::to_string(max));
   }
   return value;
}

int64_t ParseSigned(const std::string &text, const std::string &what) {
   bool negative = !text.empty() && text[0] == '-';
   uint64_t magnitude = ParseUnsigned(negative ? text.substr(1) : text, what);
   if (negative) {
      if (magnitude > (uint64_t)INT64_MAX + 1) throw ToolError("bad " + what + " '" + text + "': too small");
      return magnitude == (uint64_t)INT64_MAX + 1 ? INT64_MIN : -(int64_t)magnitude;
   }
   if (magnitude > (uint64_t)INT64_MAX) throw ToolError("bad " + what + " '" + text + "': too large");
   return (int64_t)magnitude;
}

double ParseSeconds(const std::string &text, const std::string &what) {
   if (text.empty() || text[0] == '-' || text[0] == '+') {
      throw ToolError("bad " + what + " '" + text + "': a number of seconds, not negative");
   }
   char *end = nullptr;
   errno = 0;
   double value = std::strtod(text.c_str(), &end);
   if (end == text.c_str() || *end != '\0' || errno != 0 || !std::isfinite(value)) {
      throw ToolError("bad " + what + " '" + text + "': a number of seconds");
   }
   return value;
}

bool ParseBool(const std::string &text, const std::string &what) {
   if (text == "0") return false;
   if (text == "1") return true;
   throw ToolError("bad " + what + " '" + text + "': 0 or 1");
}

std::vector<uint8_t> ParseBytes(const Token &token) {
   const std::string &t = token.text;
   if (token.quoted) return std::vector<uint8_t>(t.begin(), t.end());
   if (t == "empty") return {};
   if (t.rfind("text:", 0) == 0) return std::vector<uint8_t>(t.begin() + 5, t.end());
   if (t.rfind("hex:", 0) == 0) {
      std::vector<uint8_t> out;
      int high = -1;
      for (size_t i = 4; i < t.size(); i++) {
         char c = t[i];
         if (c == ':' || c == '.' || c == '-' || c == '_') continue;
         int d = HexDigit(c);
         if (d < 0) {
            throw ToolError(std::string("bad hex bytes: '") + c + "' is not a hex digit");
         }
         if (high < 0) {
            high = d;
         } else {
            out.push_back(static_cast<uint8_t>(high * 16 + d));
            high = -1;
         }
      }
      if (high >= 0) throw ToolError("bad hex bytes: an odd number of hex digits");
      return out;
   }
   if (t.rfind("file:", 0) == 0) {
      std::string path = t.substr(5);
      std::ifstream in(path, std::ios::binary);
      if (!in) throw ToolError("cannot read file " + path);
      return std::vector<uint8_t>(std::istreambuf_iterator<char>(in),
                                  std::istreambuf_iterator<char>());
   }
   throw ToolError("bad bytes '" + t +
                   "': use hex:..., text:WORD, \"quoted\", file:PATH or empty");
}

void ParseMac(const std::string &text, uint8_t out[6]) {
   unsigned v[6];
   char sep1, sep2, sep3, sep4, sep5, extra;
   int n = std::sscanf(text.c_str(), "%2x%c%2x%c%2x%c%2x%c%2x%c%2x%c", &v[0], &sep1,
                       &v[1], &sep2, &v[2], &sep3, &v[3], &sep4, &v[4], &sep5, &v[5],
                       &extra);
   bool ok = n == 11 && text.size() == 17;
   for (char s : {sep1, sep2, sep3, sep4, sep5}) {
      ok = ok && (s == ':' || s == '-');
   }
   for (size_t i = 0; ok && i < text.size(); i++) {
      ok = (i % 3 == 2) || HexDigit(text[i]) >= 0;
   }
   if (!ok) throw ToolError("bad MAC address '" + text + "': aa:bb:cc:dd:ee:ff");
   for (int i = 0; i < 6; i++) out[i] = static_cast<uint8_t>(v[i]);
}

bool TryParseIpv4(const std::string &text, uint8_t out[4]) {
   return inet_pton(AF_INET, text.c_str(), out) == 1;
}

bool TryParseIpv6(const std::string &text, uint8_t out[16]) {
   return inet_pton(AF_INET6, text.c_str(), out) == 1;
}

std::string MacText(const uint8_t *mac) {
   char buf[18];
   std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1],
                 mac[2], mac[3], mac[4], mac[5]);
   return buf;
}

std::string Ipv4Text(const uint8_t *ip) {
   char buf[INET_ADDRSTRLEN];
   inet_ntop(AF_INET, ip, buf, sizeof buf);
   return buf;
}

std::string Ipv6Text(const uint8_t *ip) {
   char buf[INET6_ADDRSTRLEN];
   inet_ntop(AF_INET6, ip, buf, sizeof buf);
   return buf;
}

std::string HexText(const void *data, size_t len) {
   static const char digits[] = "0123456789abcdef";
   const auto *b = static_cast<const uint8_t *>(data);
   std::string out;
   out.reserve(len * 2);
   for (size_t i = 0; i < len; i++) {
      out += digits[b[i] >> 4];
      out += digits[b[i] & 15];
   }
   return out;
}

std::string HexNumber(uint64_t value) {
   char buf[24];
   std::snprintf(buf, sizeof buf, "%#llx", (unsigned long long)value);
   return value == 0 ? "0x0" : buf;
}

std::optional<std::string> Args::Get(const std::string &key) const {
   auto it = options.find(key);
   if (it == options.end()) return std::nullopt;
   return it->second;
}

uint64_t Args::Unsigned(const std::string &key, uint64_t def, uint64_t max) const {
   auto v = Get(key);
   return v ? ParseUnsigned(*v, key + "=", max) : def;
}

bool Args::Bool(const std::string &key, bool def) const {
   auto v = Get(key);
   return v ? ParseBool(*v, key + "=") : def;
}

void Args::Expect(size_t min, size_t max, const std::string &usage) const {
   if (positional.size() < min || positional.size() > max) {
      throw ToolError("usage: " + usage);
   }
}

Args SplitArgs(const std::string &cmd, const std::vector<Token> &tokens, size_t first,
               const std::set<std::string> &allowed) {
   Args args;
   args.cmd = cmd;
   for (size_t i = first; i < tokens.size(); i++) {
      const Token &tok = tokens[i];
      size_t eq = tok.text.find('=');
      if (tok.quoted || eq == std::string::npos || !IsIdentifier(tok.text.substr(0, eq))) {
         args.positional.push_back(tok);
         continue;
      }
      std::string key = tok.text.substr(0, eq);
      if (!allowed.count(key)) {
         std::string known;
         for (const std::string &k : allowed) known += (known.empty() ? "" : ", ") + k + "=";
         throw ToolError("unknown option " + key + "= for " + cmd +
                         (known.empty() ? " (it takes no options)" : " (known: " + known + ")"));
      }
      if (args.options.count(key)) throw ToolError("option " + key + "= given twice");
      args.options[key] = tok.text.substr(eq + 1);
   }
   return args;
}

} // namespace vigilsim
