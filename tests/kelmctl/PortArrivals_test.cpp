#include "tools/kelmctl/PortArrivals.h"

namespace kelm::ctl {
namespace {

TEST(PortArrivalsTest, AnnouncementsOfTheDeviceAreCountedByPort) {
    const std::string found =
        ": New USB device found, idVendor=7c52, idProduct=0e9a, bcdDevice= 1.00\n";
    const std::string log = "6,7,100,-;usb 1-1.2" + found +            //
                            " SUBSYSTEM=usb\n DEVICE=c189:12\n" +      //
                            "6,8,200,-,caller=T1;usb 1-1.2" + found +  //
                            "6,9,201,-;usb 2-4" + found +              //
                            "6,10,99,-;usb 1-1.2" + found +            // before that
                            "6,11,202,-;usb 1-1.2: New USB device found, idVendor=7c52, "
                            "idProduct=0e9b, bcdDevice= 1.00\n" +
                            "6,12,203,-;usb 1-1.2: USB disconnect, device number 5\n" +
                            "6,13,204,-;evil" + found + "6,14,-;usb 1-3" + found + "usb 1-1.2" +
                            found;
    EXPECT_THAT(countArrivals(log, 0x7c52, 0x0e9a, 100),
                testing::ElementsAre(testing::Pair("1.1.2", 2), testing::Pair("2.4", 1)));
}

}  // namespace
}  // namespace kelm::ctl
