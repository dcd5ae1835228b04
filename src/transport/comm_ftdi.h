// The transport for devices behind an FTDI USB-serial adapter, driven through the adapter vendor's
// D2XX library. Adapters are named by their serial number and opened by their index.
//
//   CCommFTDI ftdi(link, SystemPlatform(), log, adapters);
//   ftdi.SetLineSettings({.baudRate = 57600});
//   ftdi.SetEcho(true);
//   if (ftdi.OpenPort("TAVO0001")) ftdi.SendRawData(bytes, length);
//
// It sets baud rate and character format; latency, flow control and buffers keep the adapter's
// values; a program that wants another latency gives it to the Handle. The send mode makes no difference: the adapter has a buffer of its own.
#pragma once

#include <string>
#include <vector>

#include "platform/d2xx.h"
#include "transport/i_comm_interface.h"

namespace tavo {

class CCommFTDI : public ICommInterface {
 public:
  // `d2xx` must outlive the transport.
  CCommFTDI(TavoLink& link, Platform& platform, Logger& log, D2xx& d2xx);
  ~CCommFTDI() override { CCommFTDI::EndSession(); }

  void SetLineSettings(const LineSettings& settings) override { m_lineSettings = settings; }

  std::vector<CCommDevDesc>* EnumerateDevices() override;

  // `deviceRef` is the adapter's index. Closes an adapter that is open. After a failure, whose
  // status is printed, none is open.
  bool Open(std::uint32_t deviceRef) override;
  // `serialNumber` is compared byte for byte.
  bool OpenPort(const std::string& serialNumber) override;
  // The serial number by which an adapter was last opened.
  const std::string& SerialNumber() const { return m_serialNumber; }

  bool IsOpen() override { return m_isOpen; }
  // Of the open adapter; null when none is open.
  D2xxHandle Handle() const { return m_handle; }
  void Close() override;

  // Forgets the adapters found too, and with them the thread that libusb runs for its list.
  void EndSession() override;

  // Does nothing and returns true: an adapter stays when the device behind it restarts.
  bool Reconnect() override { return true; }

  // False when no adapter is open or the vendor's library reports a failure.
  bool SendRawData(const std::uint8_t* data, std::int32_t length) override;

  // Waits at most 10 ms for input.
  bool ReceiveRawData(std::uint8_t* buffer, std::int32_t* length) override;

 private:
  void AddAdapter(std::uint32_t index, const D2xxDeviceInfo& info);
  D2xxStatus OpenAdapter(std::uint32_t index);
  bool IsUsable(const void* data) const;
  std::uint32_t BytesWaiting();
  bool Fetch(std::uint8_t* buffer, std::uint32_t count, std::int32_t* length);

  D2xx& m_d2xx;
  D2xxHandle m_handle = nullptr;
  std::vector<CCommDevDesc> m_devices;
  bool m_isOpen = false;
  bool m_inputInterrupted = false;  // at the last look
  LineSettings m_lineSettings;
  std::string m_serialNumber;
};

}  // namespace tavo
