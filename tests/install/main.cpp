// olutil-outside: a program built against an installed olutil, as a user builds one.
//
// It includes every public header without any of the library's own compile flags,
// uses a few classes (text, an endpoint, an address made from a Boost.Asio address
// of its own) and exits 1 when a result is not the expected one, so the install
// check learns whether headers, library and run-time path all fit together.
#include <olutil/olutil.h>

#include <boost/asio/ip/address.hpp>

#include <iostream>
#include <vector>

int main()
{
   int failures = 0;
   auto check = [&failures](bool ok, char const* what) {
      if (!ok)
      {
         std::cerr << "olutil-outside: unexpected " << what << "\n";
         ++failures;
      }
   };

   DtString text("alpha,beta,gamma");
   text.toUpper();
   std::vector<DtString> words;
   text.tokenize(',', words);
   std::cout << "words: " << words.size() << " (" << text << ")\n";
   check(words.size() == 3 && words[1] == "BETA", "tokens");

   DtInetEndpoint endpoint(DtInetAddr("127.0.0.1"), 3000, DtInetProtocolUdp);
   std::cout << "endpoint: " << endpoint.toDtString() << "\n";
   check(endpoint.isOk() && endpoint.isUdp() && endpoint.port() == 3000, "endpoint");

   boost::asio::ip::address boostAddress = boost::asio::ip::make_address("::1");
   DtInetAddr address(&boostAddress);
   std::cout << "address: " << address.toDtString() << (address.isLoopback() ? " loopback" : "")
             << "\n";
   check(address.isIPv6() && address.isLoopback(), "address");

   std::cout << (failures == 0 ? "olutil-outside: ok\n" : "olutil-outside: FAILED\n");
   return failures == 0 ? 0 : 1;
}
