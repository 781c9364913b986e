#include "devlib/serialapi_inner.h"

#include <cstdio>
#include <iterator>

namespace
{

// The rows of these are indexed by the setting's code. word and count are what the port script gets.
constexpr UInt32 kBitRates[] = {115200, 57600, 38400, 19200, 14400, 9600, 4800, 2400, 1200};
constexpr UInt32 kScriptDefaultBitRate = 9600;
struct FormatRow {
    UInt32 ctrlBit;
    int count;
    const char *word = "";
};
constexpr FormatRow kDataBits[] = {
    {kSerialDataBits5, 5},
    {kSerialDataBits6, 6},
    {kSerialDataBits7, 7},
    {kSerialDataBits8, 8},
};
// Deliberate: SERIAL_PARITY_NONE has no row. Only SERIAL_PARITY_NO asks for no parity. A record that was never filled
// in must not open a port.
constexpr FormatRow kParities[] = {
    {kSerialParityEven, 0, "even"},
    {kSerialParityOdd, 0, "odd"},
    {0, 0, "none"},
};
constexpr FormatRow kStopBits[] = {
    {kSerialOneStopBit, 1},
    {kSerialTwoStopBits, 2}, // one and a half
    {kSerialTwoStopBits, 2},
};

// Flow controls in the order of choice, which is not the order of their codes. The first wanted row counts.
struct FlowControlRow {
    Bool RS232Cfg::*wanted;
    UInt32 ctrlBit;
    const char *word = "";
};
constexpr FlowControlRow kDriverFlowControls[] = {
    {&RS232Cfg::hwFlowControlRtsCts, kSerialRtsCts},
    {&RS232Cfg::swFlowControlXonXoff, kSerialXonXoff},
    {&RS232Cfg::hwFlowControlDtrDsr, kSerialDtrDsr},
};
constexpr FlowControlRow kScriptFlowControls[] = {
    {&RS232Cfg::hwFlowControlDtrDsr, 0, "dtrdsr"},
    {&RS232Cfg::hwFlowControlRtsCts, 0, "rtscts"},
    {&RS232Cfg::swFlowControlXonXoff, 0, "xonxoff"},
};
constexpr FlowControlRow kNoFlowControl = {nullptr, 0, "none"};

// The row of a code, or the last row.
template <class Row, std::size_t Count> const Row &RowOrLast(const Row (&rows)[Count], UInt32 code)
{
    return rows[code < Count ? code : Count - 1];
}

template <std::size_t Count>
const FlowControlRow &ChooseFlowControl(const FlowControlRow (&rows)[Count], const RS232Cfg &cfg)
{
    for (const FlowControlRow &row : rows)
        if (cfg.*row.wanted != 0)
            return row;
    return kNoFlowControl;
}

} // namespace

bool MakeDriverConfig(const RS232Cfg &cfg, DevmgrSerial_Config_t *pConfig)
{
    if (cfg.bitRate >= std::size(kBitRates) || cfg.dataBits >= std::size(kDataBits) ||
        cfg.parityBits >= std::size(kParities) || cfg.stopBits >= std::size(kStopBits))
        return false;
    pConfig->BaudRate = kBitRates[cfg.bitRate];
    pConfig->CtrlBitMask = ChooseFlowControl(kDriverFlowControls, cfg).ctrlBit | kDataBits[cfg.dataBits].ctrlBit |
                           kParities[cfg.parityBits].ctrlBit | kStopBits[cfg.stopBits].ctrlBit;
    return true;
}

ScriptWordsT ScriptWords(const RS232Cfg &cfg)
{
    ScriptWordsT words;
    std::snprintf(words.text, sizeof words.text, "%d %d %s %d %s",
                  static_cast<int>(cfg.bitRate < std::size(kBitRates) ? kBitRates[cfg.bitRate] : kScriptDefaultBitRate),
                  RowOrLast(kDataBits, cfg.dataBits).count, RowOrLast(kParities, cfg.parityBits).word,
                  RowOrLast(kStopBits, cfg.stopBits).count, ChooseFlowControl(kScriptFlowControls, cfg).word);
    return words;
}
