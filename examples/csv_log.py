"""Shared by the logger examples: a DataLogger on the file named by the command line."""
import sys
import time

from pytorvik import DataLogger


def open_log(default_name, arg_index=2):
    logger = DataLogger()
    logger.Logger_openFile(sys.argv[arg_index] if len(sys.argv) > arg_index else default_name)
    return logger


def close_log(logger):
    """Closes once every row is written: rows still queued at the close would be lost."""
    while logger.save_data_queue.qsize():
        time.sleep(0.02)
    time.sleep(0.1)  # the last row taken may still be on its way to the file
    logger.Logger_closeFile()
