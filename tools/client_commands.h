// `tavix ping` and `tavix call`: the client side of the tool. Each takes
// the arguments after its command word and returns the exit status: 0 when
// every call succeeded, 1 when one failed (its code and text on standard
// error), 2 for a usage error.
#ifndef TAVIX_TOOLS_CLIENT_COMMANDS_H_
#define TAVIX_TOOLS_CLIENT_COMMANDS_H_

namespace TAVIX::tools {

// ping <proxy-string> [--count N] [--oneway] [--timeout MS]
int Ping(int argc, char** argv);
// call <proxy-string> echo <text> | isa <type-id> | fault <kind>   [--timeout MS]
int Call(int argc, char** argv);

extern const char* const kClientUsage;

}  // namespace TAVIX::tools

#endif  // TAVIX_TOOLS_CLIENT_COMMANDS_H_
