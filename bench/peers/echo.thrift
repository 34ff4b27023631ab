// The Echo service of the peer benchmark: a call with no payload and one
// that returns the bytes it is given.
namespace cpp thriftecho

service Echo {
  void Ping(),
  binary Echo(1: binary data),
}
