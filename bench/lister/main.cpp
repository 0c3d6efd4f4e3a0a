#include "obs/agent/job/async_obs_source_lister.h"
#include "sdk/mtf/cat_blk.h"

#include <ace/Log_Msg.h>

#include <cstdio>
#include <cstdlib>

// The listing of a backup and nothing behind it: bench-lister PORT BUCKET THREADS. Prints the number of objects.

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: bench-lister PORT BUCKET THREADS\n", stderr);
    return 2;
  }
  // As the program has it: a line per object is for debugging only.
  ACE_LOG_MSG->priority_mask(LM_ERROR | LM_CRITICAL | LM_EMERGENCY, ACE_Log_Msg::PROCESS);
  S3_Client client;
  S3_Client_Options options("bench", "bench-secret", 60);
  if (!client.connect("http", "127.0.0.1", static_cast<unsigned short>(std::atoi(argv[1])), false, nullptr, options)) {
    std::fputs("bench-lister: no client\n", stderr);
    return 1;
  }
  Async_OBS_Source_Lister lister(client, 1, {"/" + std::string(argv[2]) + "/"}, nullptr, nullptr, std::atoi(argv[3]),
                                 0x20000);
  unsigned long long objects = 0;
  const int result = lister.generate([&](std::unique_ptr<MTF::Cat_Blk> block) {
    objects += block->hdr().type() == MTF_CAT_FILE_BLK;
    return true;
  });
  std::printf("%llu\n", objects);
  return result == 0 ? 0 : 1;
}
