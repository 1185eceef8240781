@0xb5d3a1c0f2e49687;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("echo_capnp");

interface Echo {
  post @0 (body :Data) -> (body :Data);
  notify @1 (body :Data) -> stream;
}
