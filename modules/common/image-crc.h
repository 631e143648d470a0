// The CRC-32 of firmware images. Its polynomial is 0x01B23CA3, not the common
// 0x04C11DB7, and nothing is reflected or inverted; the CRC of "123456789" is
// 0x6A50465C. A value; each thread uses its own.
#ifndef MODULES_COMMON_IMAGE_CRC_H
#define MODULES_COMMON_IMAGE_CRC_H

#include <boost/crc.hpp>

namespace fwcomponent {

using ImageCrc = boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false>;

}  // namespace fwcomponent

#endif
