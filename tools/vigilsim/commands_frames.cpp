/*
 * Frames: tx and rx batches, replay of captures, packet tracing.
 */
#include <pcap/pcap.h>

#include <cstdio>
#include <set>

#include "frame_spec.h"
#include "session.h"
#include "sim_frames.h"
#include "sim_switch.h"

namespace vigilsim {

namespace {

const char *const kFrameUsage =
    "PORTID [vlan=N] [mapped=N] [sg=N,N,...] [trace=1] [repeat=N] FRAME ...";

FrameSettings ParseFrameSettings(const Args &args) {
   FrameSettings s;
   s.vlan = static_cast<uint16_t>(args.Unsigned("vlan", 0, 0xffff));
   if (args.Has("mapped")) {
      s.mapped = static_cast<int32_t>(args.Unsigned("mapped", 0, INT32_MAX));
   }
   if (auto sg = args.Get("sg")) {
      size_t start = 0;
      while (start <= sg->size()) {
         size_t end = sg->find(',', start);
         std::string part = sg->substr(start, end == std::string::npos ? end : end - start);
         s.sg.push_back(static_cast<uint32_t>(ParseUnsigned(part, "sg length", UINT32_MAX)));
         if (end == std::string::npos) break;
         start = end + 1;
      }
   }
   s.trace = args.Bool("trace", false);
   return s;
}

sim::FrameOptions OptionsFor(const FrameSettings &s, size_t frameLen) {
   uint64_t sgTotal = 0;
   for (uint32_t len : s.sg) sgTotal += len;
   if (sgTotal > frameLen) {
      throw ToolError("sg lengths add up to " + std::to_string(sgTotal) +
                      " bytes, more than the frame's " + std::to_string(frameLen));
   }
   sim::FrameOptions opts;
   opts.vlan = s.vlan;
   opts.mapped = s.mapped < 0 ? -1
                              : static_cast<int32_t>(std::min<size_t>(s.mapped, frameLen));
   opts.sg = s.sg;
   opts.traceAttr = s.trace;
   return opts;
}

Json VerdictSummary(const std::vector<std::string> &verdicts, Json &out) {
   size_t forwarded = 0;
   for (const std::string &v : verdicts) forwarded += v == "forward";
   out["frames"] = verdicts.size();
   out["forwarded"] = forwarded;
   out["dropped"] = verdicts.size() - forwarded;
   return out;
}

} // namespace

std::vector<uint8_t> Session::FrameArg(const Token &token) const {
   if (token.quoted || !frames::LooksLikeFrameSpec(token.text)) return ParseBytes(token);
   std::vector<uint8_t> bytes;
   try {
      bytes = frames::BuildFrameSpec(token.text);
   } catch (const frames::SpecError &e) {
      throw ToolError(e.what());
   }
   if (settings_.verbose) {
      std::fprintf(stderr, "vigilsim: %s -> %zu bytes: %s\n", token.text.c_str(), bytes.size(),
                   HexText(bytes.data(), bytes.size()).c_str());
   }
   return bytes;
}

std::vector<std::string> Session::RunBatch(uint32_t port,
                                           const std::vector<std::vector<uint8_t>> &frames,
                                           const FrameSettings &settings, bool tx,
                                           uint32_t *status) {
   *status = 0;
   std::vector<std::string> verdicts;
   size_t batch = settings.batch == 0 ? frames.size() : settings.batch;
   for (size_t first = 0; first < frames.size(); first += batch) {
      size_t last = std::min(frames.size(), first + batch);
      std::vector<sim::FrameOptions> options;
      for (size_t i = first; i < last; i++) options.push_back(OptionsFor(settings, frames[i].size()));
      zek_PktList *list = sim::MakeList();
      std::vector<zek_Pkt *> pkts;
      std::vector<std::vector<uint8_t>> stored;
      for (size_t i = first; i < last; i++) {
         zek_Pkt *pkt = sim::MakeFrame(frames[i], options[i - first]);
         pkts.push_back(pkt);
         stored.push_back(sim::FrameBytes(pkt));
         sim::ListAppend(list, pkt);
      }
      uint32_t st = tx ? sim::SendFromVM(port, list) : sim::DeliverToVM(port, list);
      if (*status == 0) *status = st;
      /* What is left in the list was forwarded.  A traced frame may have
       * been replaced by a copy of itself, which has the same bytes. */
      std::vector<zek_Pkt *> left = sim::ListFrames(list);
      std::set<zek_Pkt *> originals(pkts.begin(), pkts.end());
      size_t next = 0;
      for (size_t i = 0; i < pkts.size(); i++) {
         bool kept = false;
         if (next < left.size()) {
            zek_Pkt *cand = left[next];
            kept = cand == pkts[i] ||
                   (!originals.count(cand) && sim::FrameBytes(cand) == stored[i]);
         }
         verdicts.push_back(kept ? "forward" : "drop");
         next += kept;
      }
      sim::DestroyList(list);
   }
   return verdicts;
}

void Session::SendFrames(const std::vector<Token> &t, Json &out, bool tx) {
   const std::string cmd = tx ? "tx" : "rx";
   Args args = SplitArgs(cmd, t, 1, {"vlan", "mapped", "sg", "trace", "repeat"});
   args.Expect(2, SIZE_MAX, cmd + " " + kFrameUsage);
   uint32_t port = PortArg(args.positional[0]);
   FrameSettings settings = ParseFrameSettings(args);
   uint64_t repeat = args.Unsigned("repeat", 1, 100000);
   std::vector<std::vector<uint8_t>> frames;
   for (size_t i = 1; i < args.positional.size(); i++) {
      std::vector<uint8_t> bytes = FrameArg(args.positional[i]);
      if (bytes.empty()) throw ToolError("frame " + std::to_string(i) + " is empty");
      for (uint64_t r = 0; r < repeat; r++) frames.push_back(bytes);
   }
   uint32_t status = 0;
   std::vector<std::string> verdicts = RunBatch(port, frames, settings, tx, &status);
   out["portID"] = port;
   out["status"] = status;
   out["verdicts"] = verdicts;
}

/* The bytes of frames, as tx and rx would send them, without sending. */
void Session::CmdFrame(const std::vector<Token> &t, Json &out) {
   if (t.size() < 2) throw ToolError("usage: frame FRAME ...");
   Json list = Json::array();
   for (size_t i = 1; i < t.size(); i++) {
      std::vector<uint8_t> bytes = FrameArg(t[i]);
      list.push_back(HexText(bytes.data(), bytes.size()));
   }
   out["frames"] = list;
}

void Session::CmdTx(const std::vector<Token> &t, Json &out) { SendFrames(t, out, true); }

void Session::CmdRx(const std::vector<Token> &t, Json &out) { SendFrames(t, out, false); }

void Session::CmdReplay(const std::vector<Token> &t, Json &out) {
   Args args = SplitArgs("replay", t, 1, {"vlan", "batch", "trace"});
   args.Expect(3, 3, "replay PORTID tx|rx PCAPFILE [vlan=N] [batch=N]");
   uint32_t port = PortArg(args.positional[0]);
   std::string dir = args.positional[1].text;
   if (dir != "tx" && dir != "rx") throw ToolError("replay: direction must be tx or rx");
   std::string path = args.positional[2].text;
   FrameSettings settings = ParseFrameSettings(args);
   settings.batch = args.Unsigned("batch", 32, 1u << 20);
   if (settings.batch == 0) throw ToolError("replay: batch= must be at least 1");

   char errbuf[PCAP_ERRBUF_SIZE] = "";
   pcap_t *pcap = pcap_open_offline(path.c_str(), errbuf);
   if (pcap == nullptr) throw ToolError("cannot read capture " + path + ": " + errbuf);
   std::vector<std::vector<uint8_t>> frames;
   int linkType = pcap_datalink(pcap);
   if (linkType != DLT_EN10MB) {
      pcap_close(pcap);
      throw ToolError("capture " + path + " is not of Ethernet frames (link type " +
                      std::to_string(linkType) + ")");
   }
   struct pcap_pkthdr *header;
   const u_char *data;
   int rc;
   while ((rc = pcap_next_ex(pcap, &header, &data)) == 1) {
      if (header->caplen > 0) frames.emplace_back(data, data + header->caplen);
   }
   std::string readError = rc == PCAP_ERROR ? pcap_geterr(pcap) : "";
   pcap_close(pcap);
   if (!readError.empty()) throw ToolError("cannot read capture " + path + ": " + readError);

   uint32_t status = 0;
   std::vector<std::string> verdicts = RunBatch(port, frames, settings, dir == "tx", &status);
   out["portID"] = port;
   out["direction"] = dir;
   out["file"] = path;
   VerdictSummary(verdicts, out);
   out["status"] = status;
   out["verdicts"] = verdicts;
}

void Session::CmdTrace(const std::vector<Token> &t, Json &out) {
   if (t.size() != 2 || (t[1].text != "on" && t[1].text != "off")) {
      throw ToolError("usage: trace on|off");
   }
   sim::SetTracing(t[1].text == "on");
   out["tracing"] = t[1].text == "on";
}

} // namespace vigilsim
