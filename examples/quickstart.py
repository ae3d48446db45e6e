"""Prints the library's version and splits a received byte stream into packets."""
import pytorvik

print("pytorvik", pytorvik.__version__)

# Two replies as a unit sends them, torn across three reads, with a stray byte in front.
frames = bytes([0x55,
                0x02, 0x00, 0x02, pytorvik.GET_DRIVER_INFO, 0x00, 0x0D, 0x0A,
                0x02, 0x00, 0x04, pytorvik.GET_DATE_TIME, 0x0D, 0x0A, 0x02, 0x0D, 0x0A])
client = pytorvik.Client()
for chunk in (frames[:5], frames[5:12], frames[12:]):
    client.stream += chunk
    for cmd, data in client._splitPacket():
        print("packet cmd=0x{:02X} data={}".format(cmd, list(data)))
print("left over:", client.stream)
