// Both ends of the modem wire on arbitrary bytes: the simulator's request decoding (a
// frame taken as it arrives, then handled) and the host library's decoding of what the
// simulator sends back (every DFS response and indication).

#include <cstdlib>
#include <vector>

#include "ModemSim.h"
#include "data_filter_service_v01.h"
#include "tov_wire.h"

namespace {

const unsigned kMessages[] = {
    TOV_DFS_INDICATION_REGISTER_REQ_V01,  TOV_DFS_BIND_CLIENT_REQ_V01,
    TOV_DFS_ADD_POWERSAVE_FILTERS_REQ_V01, TOV_DFS_SET_POWERSAVE_FILTER_MODE_REQ_V01,
    TOV_DFS_GET_POWERSAVE_FILTER_MODE_REQ_V01, TOV_DFS_SET_AUTOEXIT_POWERSAVE_FILTER_MODE_REQ_V01,
    TOV_DFS_POWERSAVE_FILTER_MODE_IND_V01, TOV_DFS_REMOVE_ALL_POWERSAVE_FILTERS_REQ_V01};

// The library's side: every decoder, on exactly these bytes.
void decodeAsLibrary(const uint8_t* data, size_t size) {
  for (tov_idl_type_of_msg_type type : {TOV_IDL_REQUEST, TOV_IDL_RESPONSE, TOV_IDL_INDICATION}) {
    for (unsigned id : kMessages) {
      const size_t structSize = tovwire::dfsStructSize(type, id);
      if (structSize == 0) continue;
      std::vector<uint8_t> out(structSize);
      tovwire::Reader in(data, size);
      if (!tovwire::decodeDfs(type, id, in, out.data(), out.size())) continue;
      if (id == TOV_DFS_ADD_POWERSAVE_FILTERS_REQ_V01 && type == TOV_IDL_RESPONSE) {
        const auto* r = reinterpret_cast<const dfs_add_powersave_filters_resp_msg_v01*>(out.data());
        if (r->filter_handles_len > DFS_MAX_POWERSAVE_FILTERS_V01 ||
            r->filter_cookies_len > DFS_MAX_POWERSAVE_FILTERS_V01)
          abort();
      }
      // What decodes encodes again to the same bytes.
      tovwire::Writer again;
      if (!tovwire::encodeDfs(type, id, out.data(), out.size(), again) ||
          again.body() != std::vector<uint8_t>(data, data + size))
        abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static modemsim::ModemSim* const sim = new modemsim::ModemSim();
  if (size < 1) return 0;
  const uint8_t mode = data[0];
  ++data, --size;
  if (mode % 2 == 1) {
    decodeAsLibrary(data, size);
    return 0;
  }
  // The simulator's side: a header that parses, then at most its body's bytes.
  if (size < tovwire::kHeaderSize) return 0;
  tovwire::Header header;
  if (!tovwire::parseHeader(data, header, nullptr)) return 0;
  const size_t available = size - tovwire::kHeaderSize;
  const size_t bodySize = header.length < available ? header.length : available;
  const std::vector<uint8_t> body(data + tovwire::kHeaderSize,
                                  data + tovwire::kHeaderSize + bodySize);
  std::vector<modemsim::Outgoing> out;
  const uint64_t connection = 1 + mode / 2 % 3;
  sim->handleFrame(connection, header, body, out);
  for (const modemsim::Outgoing& o : out) {
    tovwire::Header sent;
    if (o.frame.size() < tovwire::kHeaderSize || !tovwire::parseHeader(o.frame.data(), sent, nullptr) ||
        sent.length != o.frame.size() - tovwire::kHeaderSize)
      abort();
  }
  if (mode / 2 % 7 == 0) sim->connectionClosed(connection);
  return 0;
}
