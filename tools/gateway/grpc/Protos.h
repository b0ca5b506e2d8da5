#pragma once

// What gRPC's generator makes. With the thread sanitizer the headers of protobuf lay out maps in
// another way than its library, which is not built with that: it is hidden from them.
#pragma push_macro("__SANITIZE_THREAD__")
#undef __SANITIZE_THREAD__
#include <health.grpc.pb.h>
#include <open_inference.grpc.pb.h>
#pragma pop_macro("__SANITIZE_THREAD__")
