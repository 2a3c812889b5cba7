// Declarations of the FT4222 bridge C API (D2XX driver and LibFT4222), as far
// as the plug-in uses them. They follow the vendor ABI on Linux x86-64, so the
// same plug-in binary runs against the vendor's libft4222.so (which carries the
// D2XX functions too) or against our virtual bridge, whichever library answers
// "libft4222.so" when the plug-in is loaded.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned int DWORD;
typedef unsigned int ULONG;
typedef unsigned int BOOL;
typedef unsigned int LONG;
typedef uint8_t uint8;
typedef uint16_t uint16;
typedef uint32_t uint32;
typedef void* FT_HANDLE;
typedef ULONG FT_STATUS;

#ifndef WINAPI
#define WINAPI
#endif

enum {
    FT_OK = 0,
    FT_INVALID_HANDLE = 1,
    FT_DEVICE_NOT_FOUND = 2,
    FT_DEVICE_NOT_OPENED = 3,
    FT_IO_ERROR = 4,
    FT_INSUFFICIENT_RESOURCES = 5,
    FT_INVALID_PARAMETER = 6,
    FT_INVALID_BAUD_RATE = 7,
    FT_DEVICE_NOT_OPENED_FOR_ERASE = 8,
    FT_DEVICE_NOT_OPENED_FOR_WRITE = 9,
    FT_FAILED_TO_WRITE_DEVICE = 10,
    FT_EEPROM_READ_FAILED = 11,
    FT_EEPROM_WRITE_FAILED = 12,
    FT_EEPROM_ERASE_FAILED = 13,
    FT_EEPROM_NOT_PRESENT = 14,
    FT_EEPROM_NOT_PROGRAMMED = 15,
    FT_INVALID_ARGS = 16,
    FT_NOT_SUPPORTED = 17,
    FT_OTHER_ERROR = 18,
    FT_DEVICE_LIST_NOT_READY = 19,
};

#define FT_OPEN_BY_SERIAL_NUMBER 1
#define FT_OPEN_BY_DESCRIPTION 2
#define FT_OPEN_BY_LOCATION 4

#define FT_PURGE_RX 1
#define FT_PURGE_TX 2

#define FT_FLAGS_OPENED 1
#define FT_FLAGS_HISPEED 2

enum {
    FT_DEVICE_4222H_0 = 10,
    FT_DEVICE_4222H_1_2 = 11,
    FT_DEVICE_4222H_3 = 12,
    FT_DEVICE_4222_PROG = 13,
};

typedef struct _ft_device_list_info_node {
    ULONG Flags;
    ULONG Type;
    ULONG ID;
    DWORD LocId;
    char SerialNumber[16];
    char Description[64];
    FT_HANDLE ftHandle;
} FT_DEVICE_LIST_INFO_NODE;

// A C enumeration has the range of an int: a code the library returns that
// the list does not name (a negative one too) is still a value of the type.
typedef enum FT4222_STATUS
#ifdef __cplusplus
    : int
#endif
{ FT4222_OK = 0,
    FT4222_INVALID_HANDLE,
    FT4222_DEVICE_NOT_FOUND,
    FT4222_DEVICE_NOT_OPENED,
    FT4222_IO_ERROR,
    FT4222_INSUFFICIENT_RESOURCES,
    FT4222_INVALID_PARAMETER,
    FT4222_INVALID_BAUD_RATE,
    FT4222_DEVICE_NOT_OPENED_FOR_ERASE,
    FT4222_DEVICE_NOT_OPENED_FOR_WRITE,
    FT4222_FAILED_TO_WRITE_DEVICE,
    FT4222_EEPROM_READ_FAILED,
    FT4222_EEPROM_WRITE_FAILED,
    FT4222_EEPROM_ERASE_FAILED,
    FT4222_EEPROM_NOT_PRESENT,
    FT4222_EEPROM_NOT_PROGRAMMED,
    FT4222_INVALID_ARGS,
    FT4222_NOT_SUPPORTED,
    FT4222_OTHER_ERROR,
    FT4222_DEVICE_LIST_NOT_READY,

    FT4222_DEVICE_NOT_SUPPORTED = 1000,
    FT4222_CLK_NOT_SUPPORTED,
    FT4222_VENDER_CMD_NOT_SUPPORTED,
    FT4222_IS_NOT_SPI_MODE,
    FT4222_IS_NOT_I2C_MODE,
    FT4222_IS_NOT_SPI_SINGLE_MODE,
    FT4222_IS_NOT_SPI_MULTI_MODE,
    FT4222_WRONG_I2C_ADDR,
    FT4222_INVAILD_FUNCTION,
    FT4222_INVALID_POINTER,
    FT4222_EXCEEDED_MAX_TRANSFER_SIZE,
    FT4222_FAILED_TO_READ_DEVICE,
    FT4222_I2C_NOT_SUPPORTED_IN_THIS_MODE,
    FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE,
    FT4222_GPIO_EXCEEDED_MAX_PORTNUM,
    FT4222_GPIO_WRITE_NOT_SUPPORTED,
    FT4222_GPIO_PULLUP_INVALID_IN_INPUTMODE,
    FT4222_GPIO_PULLDOWN_INVALID_IN_INPUTMODE,
    FT4222_GPIO_OPENDRAIN_INVALID_IN_OUTPUTMODE,
    FT4222_INTERRUPT_NOT_SUPPORTED,
    FT4222_GPIO_INPUT_NOT_SUPPORTED,
    FT4222_EVENT_NOT_SUPPORTED,
    FT4222_FUN_NOT_SUPPORT,
} FT4222_STATUS;

typedef enum FT4222_ClockRate {
    SYS_CLK_60 = 0,
    SYS_CLK_24,
    SYS_CLK_48,
    SYS_CLK_80,
} FT4222_ClockRate;

typedef enum FT4222_SPIMode {
    SPI_IO_NONE = 0,
    SPI_IO_SINGLE = 1,
    SPI_IO_DUAL = 2,
    SPI_IO_QUAD = 4,
} FT4222_SPIMode;

typedef enum FT4222_SPIClock {
    CLK_NONE = 0,
    CLK_DIV_2,
    CLK_DIV_4,
    CLK_DIV_8,
    CLK_DIV_16,
    CLK_DIV_32,
    CLK_DIV_64,
    CLK_DIV_128,
    CLK_DIV_256,
    CLK_DIV_512,
} FT4222_SPIClock;

typedef enum FT4222_SPICPOL {
    CLK_IDLE_LOW = 0,
    CLK_IDLE_HIGH = 1,
} FT4222_SPICPOL;

typedef enum FT4222_SPICPHA {
    CLK_LEADING = 0,
    CLK_TRAILING = 1,
} FT4222_SPICPHA;

typedef enum SPI_DrivingStrength {
    DS_4MA = 0,
    DS_8MA,
    DS_12MA,
    DS_16MA,
} SPI_DrivingStrength;

typedef enum GPIO_Port {
    GPIO_PORT0 = 0,
    GPIO_PORT1,
    GPIO_PORT2,
    GPIO_PORT3,
} GPIO_Port;

typedef enum GPIO_Dir {
    GPIO_OUTPUT = 0,
    GPIO_INPUT,
} GPIO_Dir;

// D2XX
FT_STATUS WINAPI FT_CreateDeviceInfoList(DWORD* numDevs);
FT_STATUS WINAPI FT_GetDeviceInfoDetail(DWORD index, DWORD* flags, DWORD* type, DWORD* id,
                                        DWORD* locId, void* serialNumber, void* description,
                                        FT_HANDLE* handle);
FT_STATUS WINAPI FT_OpenEx(void* arg, DWORD flags, FT_HANDLE* handle);
FT_STATUS WINAPI FT_SetTimeouts(FT_HANDLE handle, ULONG readTimeoutMs, ULONG writeTimeoutMs);
FT_STATUS WINAPI FT_Purge(FT_HANDLE handle, ULONG mask);
FT_STATUS WINAPI FT_ResetDevice(FT_HANDLE handle);
FT_STATUS WINAPI FT_Close(FT_HANDLE handle);
// Linux and macOS only: the driver there lists the vendor's own USB ids only,
// plus the one pair registered here before the list is read.
FT_STATUS WINAPI FT_SetVIDPID(DWORD vid, DWORD pid);
FT_STATUS WINAPI FT_GetVIDPID(DWORD* vid, DWORD* pid);

// LibFT4222
FT4222_STATUS FT4222_UnInitialize(FT_HANDLE handle);
FT4222_STATUS FT4222_SetClock(FT_HANDLE handle, FT4222_ClockRate clk);
FT4222_STATUS FT4222_GetClock(FT_HANDLE handle, FT4222_ClockRate* clk);
FT4222_STATUS FT4222_SetSuspendOut(FT_HANDLE handle, BOOL enable);
FT4222_STATUS FT4222_SetWakeUpInterrupt(FT_HANDLE handle, BOOL enable);

FT4222_STATUS FT4222_SPIMaster_Init(FT_HANDLE handle, FT4222_SPIMode ioLine,
                                    FT4222_SPIClock clock, FT4222_SPICPOL cpol,
                                    FT4222_SPICPHA cpha, uint8 ssoMap);
FT4222_STATUS FT4222_SPIMaster_SetLines(FT_HANDLE handle, FT4222_SPIMode spiMode);
FT4222_STATUS FT4222_SPIMaster_SingleRead(FT_HANDLE handle, uint8* buffer, uint16 bufferSize,
                                          uint16* sizeOfRead, BOOL isEndTransaction);
FT4222_STATUS FT4222_SPIMaster_SingleWrite(FT_HANDLE handle, uint8* buffer, uint16 bufferSize,
                                           uint16* sizeTransferred, BOOL isEndTransaction);
FT4222_STATUS FT4222_SPIMaster_SingleReadWrite(FT_HANDLE handle, uint8* readBuffer,
                                               uint8* writeBuffer, uint16 bufferSize,
                                               uint16* sizeTransferred, BOOL isEndTransaction);
FT4222_STATUS FT4222_SPIMaster_MultiReadWrite(FT_HANDLE handle, uint8* readBuffer,
                                              uint8* writeBuffer, uint8 singleWriteBytes,
                                              uint16 multiWriteBytes, uint16 multiReadBytes,
                                              uint32* sizeOfRead);
FT4222_STATUS FT4222_SPI_Reset(FT_HANDLE handle);
FT4222_STATUS FT4222_SPI_ResetTransaction(FT_HANDLE handle, uint8 spiIdx);
FT4222_STATUS FT4222_SPI_SetDrivingStrength(FT_HANDLE handle, SPI_DrivingStrength clkStrength,
                                            SPI_DrivingStrength ioStrength,
                                            SPI_DrivingStrength ssoStrength);

FT4222_STATUS FT4222_GPIO_Init(FT_HANDLE handle, GPIO_Dir gpioDir[4]);
FT4222_STATUS FT4222_GPIO_Read(FT_HANDLE handle, GPIO_Port portNum, BOOL* value);
FT4222_STATUS FT4222_GPIO_Write(FT_HANDLE handle, GPIO_Port portNum, BOOL bValue);

#ifdef __cplusplus
}
#endif
