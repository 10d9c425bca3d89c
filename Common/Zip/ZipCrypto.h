// CZipCrypto: the traditional password encryption of one zip entry.
//
// The three 32-bit keys start from the password and advance with every plain
// byte; each data byte is combined with a byte derived from the third key.
// An encrypted entry begins with a 12-byte header: ten random bytes and the
// two high bytes of the entry's CRC-32, which lets the reader check the
// password before inflating anything.
//
// CZip uses this in place of minizip's own encryption: the minizip of our
// platform reads zlib's 32-bit CRC table through a pointer to 64-bit values
// on LP64 hosts, so the entries it encrypts can't be read by any other
// program. One object serves one entry on one thread.
#ifndef COMMON_ZIP_ZIPCRYPTO_H_
#define COMMON_ZIP_ZIPCRYPTO_H_

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <string>

class CZipCrypto {
 public:
  static constexpr size_t kHeaderSize = 12;
  static constexpr size_t kRandomSize = kHeaderSize - 2;

  explicit CZipCrypto(const std::string& password);

  // Writes the encrypted entry header into `header` (kHeaderSize bytes):
  // the kRandomSize bytes of `random`, then the bytes 2 and 3 of `crc`.
  void makeHeader(uint32_t crc, const unsigned char* random, unsigned char* header);
  // Encrypts `size` bytes in place; call after makeHeader.
  void encrypt(unsigned char* data, size_t size);
  // Decrypts `size` bytes in place, header included.
  void decrypt(unsigned char* data, size_t size);

 private:
  uint8_t keyStreamByte() const;
  void updateKeys(uint8_t plain);
  uint32_t crcStep(uint32_t crc, uint8_t byte) const;

  const z_crc_t* m_table;
  uint32_t m_keys[3];
};

#endif  // COMMON_ZIP_ZIPCRYPTO_H_
