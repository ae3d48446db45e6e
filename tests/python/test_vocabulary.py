import pytorvik as t


def test_codes_classification_and_framing_names():
    assert (t.OPEN_CAN, t.GET_CAN_COUNTERS, t.READ_ACCELERATION, t.SET_UART_NUM_STOP_BITS) == (48, 61, 111, 139)
    assert (t.CHECK_CALCULATUON, t.OPEN_AO_STREAMING, t.SET_AO_FORM_PARAM, t.RELAY_SAVE) == (185, 0x2048, 0x2056, 0x1B10)
    assert t.STREAMING_CMD_LIST == [t.START_CAN, t.START_UART_READING, t.START_AI_STREAMING,
                                    t.START_AI_STREAMING_VARIABLE, t.START_AO_STREAMING, t.START_MOTION_MONITORING]
    assert t.BROADCAST_CMD_LIST == [252, 253, 254]
    assert (t.CMD_STX_2, t.CMD_CR_2, t.CMD_LF_2, t.CMD_INDEX_2) == (t.CMD_STX, t.CMD_CR, t.CMD_LF, t.CMD_INDEX) == (2, 13, 10, 3)
    assert (t.USB_VID, t.USB_PID, t.USB_EP_IN, t.USB_EP_OUT, t.USB_PKT_SIZE) == (0x0483, 0x5750, 0x81, 0x01, 64)
    assert (t.UDP_SEND_PORT, t.UDP_RECV_PORT, t.TCP_DATA_LENGTH_MAX, t.QUEUE_TIMEOUT) == (61557, 6667, 9606, 999999)
    assert t.ECHO_DELAY == 0.01 and isinstance(t.PACKET_TIMEOUT, int)


def test_every_code_has_one_name_and_fits_its_wire_width():
    names = [n for n in dir(t) if n.isupper() and isinstance(getattr(t, n), int)]
    codes = {n: getattr(t, n) for n in names if not n.startswith(("CMD_", "USB_", "TCP_", "UDP_", "QUEUE_", "NUM_"))
             and n not in ("PACKET_TIMEOUT", "RETRY_TIMEOUT", "CONNECTION_TIMEOUT")}
    assert len(codes) == len(set(codes.values())) == 141
    # Every one-byte code but OPEN_CAN lies above 48; every two-byte code starts with 0x1B or 0x20.
    assert min(codes.values()) == t.OPEN_CAN == 48
    assert {c >> 8 for c in codes.values() if c >= 256} == {0x1B, 0x20}


def test_label_dict_keeps_order_and_the_trailing_blank():
    keys = list(t.LABEL_DICT)
    assert len(keys) == 81
    assert keys[:3] == ["utilities", "wireless", "ethernet"] and keys[-1] == "multiple_loops_async"
    assert keys.index("Temperature_TC") + 1 == keys.index("Temperature")
    assert t.LABEL_DICT["AIO_all_channels_loopback"] == "AIO all channels loopback "
    assert t.LABEL_DICT["TorvikLanThermo"] == "Torvik-LAN-Thermo"
