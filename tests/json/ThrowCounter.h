#pragma once

namespace talvoem::test {

// C++ exceptions thrown anywhere in this process so far. The codec must turn
// bad input away before jsoncpp throws: on Android jsoncpp is built without
// exceptions and aborts at those points, so an exception the codec catches on
// the host is a crash on the device.
int exceptionsThrown();

}  // namespace talvoem::test
