#!/usr/bin/env python3
"""The program qvtp as a user runs it: arguments, output, exit codes, signals, a terminal.

    cli_test.py PROGRAM [unittest's arguments]

A program for Windows needs a command that runs it: QVTP_RUNNER in the environment.
"""
import unittest

from completion_test import Completion
from config_test import Config
from pipes_test import Serve, List, Ping, Bench
from program_test import Arguments, LostOutput, Messages, ClosedDescriptors, Manual
from send_test import Post, Progress, Notify
from trace_test import Trace, Browser

if __name__ == "__main__":
    unittest.main()
