"""Shared by the logger examples: a DataLogger on the file named by the command line."""
import time

import target
from pytorvik import DataLogger


def open_log(default_name):
    """A logger on the file named after HANDLE and TARGET on the command line, else on `default_name`."""
    logger = DataLogger()
    more = target.rest()
    logger.Logger_openFile(more[0] if more else default_name)
    return logger


def close_log(logger):
    """Closes once every row is written: rows still queued at the close would be lost."""
    while logger.save_data_queue.qsize():
        time.sleep(0.02)
    time.sleep(0.1)  # the last row taken may still be on its way to the file
    logger.Logger_closeFile()
