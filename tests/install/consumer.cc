// An application outside the tree: encodes a header and looks up an error.
#include <tavix/tavix.h>

#include <cstdio>
#include <string>

int main() {
  TAVIX::MsgHeaderData header;
  header.Init(TAVIX::MSG_VALIDATE);
  uint8_t bytes[TAVIX::HEADER_SIZE];
  header.Encode(bytes);
  for (int i = 0; i < TAVIX::HEADER_SIZE; ++i) std::printf(i ? " %02x" : "%02x", bytes[i]);
  std::printf("\n");
  std::string text;
  std::printf("%s\n", TAVIX::GetErrMsg(0x20000016, text).c_str());
  return 0;
}
