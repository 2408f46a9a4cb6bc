#ifndef SDOABORTCODES_H
#define SDOABORTCODES_H

#include <QtGlobal>

// SDO abort codes the simulated device answers with (CiA 301 values).
namespace SdoAbort {
constexpr quint32 None = 0;
constexpr quint32 ToggleNotAlternated = 0x05030000;
constexpr quint32 Timeout = 0x05040000;
constexpr quint32 InvalidCommand = 0x05040001;
constexpr quint32 InvalidBlockSize = 0x05040002;
constexpr quint32 InvalidSequenceNumber = 0x05040003;
constexpr quint32 CrcError = 0x05040004;
constexpr quint32 ReadOfWriteOnly = 0x06010001;
constexpr quint32 WriteOfReadOnly = 0x06010002;
constexpr quint32 ObjectDoesNotExist = 0x06020000;
constexpr quint32 LengthMismatch = 0x06070010;
constexpr quint32 LengthTooHigh = 0x06070012;
constexpr quint32 LengthTooLow = 0x06070013;
constexpr quint32 SubIndexDoesNotExist = 0x06090011;
constexpr quint32 ValueRangeExceeded = 0x06090030;
constexpr quint32 GeneralError = 0x08000000;
} // namespace SdoAbort

#endif
