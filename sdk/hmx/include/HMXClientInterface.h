// Picture-quality manager client library of the TV platform, as the AV sink uses it.
#pragma once

#include <stddef.h>
#include <stdint.h>

class HMXParam {
  public:
    HMXParam();
    ~HMXParam();
    HMXParam(const HMXParam&) = delete;
    HMXParam& operator=(const HMXParam&) = delete;

    int writeInt32(int32_t value);
    int32_t readInt32() const;
    const uint8_t* data() const;
    size_t dataSize() const;

    // Used by the service side to fill a reply.
    void setData(const uint8_t* bytes, size_t size);

  private:
    uint8_t* m_data;
    size_t m_size;
    size_t m_capacity;
    mutable size_t m_read_pos;
};

class HMXClientInterface {
  public:
    HMXClientInterface(const char* service_name, int flags);
    virtual ~HMXClientInterface();
    virtual int transact(unsigned code, HMXParam& data, HMXParam* reply, unsigned flags);

  private:
    char m_service[64];
    int m_flags;
};

// Picture-quality manager service commands.
enum {
    EN_HMX_PQMGR_SET_PQ = 1,
    EN_HMX_PQMGR_SET_PAUSE = 2,
    EN_HMX_PQMGR_SET_RC_MODE_CHANGE = 4,
    EN_HMX_PQMGR_SET_RC_SEAMLESS = 5,
    EN_HMX_PQMGR_SET_HDR_INFO = 6,
    EN_HMX_PQMGR_SET_PLAYBACK_FLAG = 7,
};
