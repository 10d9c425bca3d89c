#include "Common/Zip/ZipCrypto.h"

CZipCrypto::CZipCrypto(const std::string& password) : m_table(get_crc_table()) {
  m_keys[0] = 0x12345678u;
  m_keys[1] = 0x23456789u;
  m_keys[2] = 0x34567890u;
  for (const char c : password)
    updateKeys(static_cast<uint8_t>(c));
}

void CZipCrypto::makeHeader(uint32_t crc, const unsigned char* random, unsigned char* header) {
  for (size_t i = 0; i < kRandomSize; ++i)
    header[i] = random[i];
  header[kRandomSize] = static_cast<unsigned char>(crc >> 16);
  header[kRandomSize + 1] = static_cast<unsigned char>(crc >> 24);
  encrypt(header, kHeaderSize);
}

void CZipCrypto::encrypt(unsigned char* data, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    const uint8_t plain = data[i];
    data[i] = static_cast<unsigned char>(plain ^ keyStreamByte());
    updateKeys(plain);
  }
}

void CZipCrypto::decrypt(unsigned char* data, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    const uint8_t plain = static_cast<uint8_t>(data[i] ^ keyStreamByte());
    data[i] = plain;
    updateKeys(plain);
  }
}

uint8_t CZipCrypto::keyStreamByte() const {
  const uint32_t temp = (m_keys[2] & 0xFFFFu) | 2u;
  return static_cast<uint8_t>((temp * (temp ^ 1u)) >> 8);
}

void CZipCrypto::updateKeys(uint8_t plain) {
  m_keys[0] = crcStep(m_keys[0], plain);
  m_keys[1] = (m_keys[1] + (m_keys[0] & 0xFFu)) * 134775813u + 1u;
  m_keys[2] = crcStep(m_keys[2], static_cast<uint8_t>(m_keys[1] >> 24));
}

// One byte of the CRC-32 recurrence, without zlib's pre- and post-inversion.
uint32_t CZipCrypto::crcStep(uint32_t crc, uint8_t byte) const {
  return static_cast<uint32_t>(m_table[(crc ^ byte) & 0xFFu]) ^ (crc >> 8);
}
