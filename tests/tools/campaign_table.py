#!/usr/bin/env python3
"""Prints the fault campaign's table for tests/README.md from a ctest log.

Usage: tests/tools/campaign_table.py build/default/Testing/Temporary/LastTest.log
The log holds each case's "[campaign]" line and its ctest result and time.
"""
import re
import sys

# What each case does, by case name or by phase (the part before "_SIGNAL").
FAULTS = {
    'Setup': 'signal as set-up reads the (slow, 3 s) health tool at the wear gate: the main thread '
             'reading the tool, after the last configuration line; no test list yet',
    'FirstPass': 'signal once a writer is in a read or write of the first pass (the eight writers at '
                 'work, the four readers choosing files)',
    'BenchPrep': 'signal as the benchmark folder appears: the main thread writes the 512 MiB '
                 'preparation file',
    'BenchSeqWrite': 'signal once a sequential-write worker is in a write (after the preparation)',
    'BenchSeqRead': 'signal once, after the `seq write` speed line, a sequential-read worker is in a read',
    'BenchRandWrite': 'signal once, after the `seq read` speed line, a random-write worker is in a write',
    'BenchRandRead': 'signal once, after the `rand write` speed line, a random-read worker is in a read',
    'HealthJudge': 'health tool made slow (3 s) from the `rand write` line on; signal once, after the '
                   'last mode, the main thread reads the tool: the cycle\'s health judgement',
    'Summary': 'whole short run (budget 3600 s); signal at `Run flashtest success`: the summary and '
               'verdict (may come after the record is written or after the end)',
    'ToolGarbageMidRun': 'the health tool is replaced by a garbage printer at the first fill',
    'FullDuringFirstPass': 'reserve 1 MiB; the partition is made full once all four readers read '
                           'their files (ENOSPC under the writers)',
    'BarrierWaitThread_TERM': 'SIGTERM to a writer thread blocked in a futex (its barrier wait or the '
                              'pattern-buffer lock) in the first fill',
    'ToolRemovedMidRun': 'the health tool is deleted at the first fill',
    'ToolGoneFromStart': 'no health tool from the start (the wear gate\'s failed reading lets the run go on)',
    'ToolGarbageThenBack': 'garbage printer at the first fill, the real tool back at the `seq write` line',
    'BatteryNodeRemoved': 'the battery temperature node is deleted at the first fill',
    'BatteryRemovedWhileHot': 'battery at 52.0 C; the node is deleted once the filler sleeps on it',
    'FullAtBenchPrep': 'the partition is made full as the benchmark folder appears',
    'FullDuringBenchMode': 'the partition is made full at the `seq write` speed line',
    'FullAtNextCycle': 'five fill cycles allowed; the partition is made full after cycle 0',
    'ReaderChoiceThread_SEGV': 'SIGSEGV to a reader thread sleeping in its file choice',
    'WriterThread_INT': 'SIGINT to a writer thread in a read or write of the first fill',
    'TwoTerms': 'SIGTERM once a writer is at work, and again once the first was caught (a worker '
                'thread catches it)',
    'EnterH8Thread_USR1': 'enter-H8 test alone; SIGUSR1 to its writer thread in a 3 s sleep',
    'BetweenTests_TERM': 'both tests; after the enter-H8 test\'s 5 minutes, SIGTERM while the runner '
                         'reads the (slow) health tool before the filler',
}


def main(path):
    text = open(path, encoding='utf-8', errors='replace').read()
    outcome = {}
    for m in re.finditer(r'^\[campaign\] (\S+): (.*)$', text, re.M):
        outcome[m.group(1)] = m.group(2)
    result = {}
    for m in re.finditer(r'Test +#\d+: (\S+)/Campaign\.KeepsItsPromises/(\S+) .*?(Passed|Failed|\*\*\*\w+) +([\d.]+) sec',
                         text):
        result[m.group(2)] = ('campaign' if m.group(1) in ('Signals', 'Faults') else 'campaign-full',
                              m.group(3).strip('*'), m.group(4))
    if not result:  # LastTest.log: "N/M Test: NAME" blocks with "Test Passed." / "Test time ="
        for m in re.finditer(r'Test: (\S+)/Campaign\.KeepsItsPromises/(\S+)[^\n]*\n.*?Test time = +([\d.]+) sec\n-+\n'
                             r'(Test Passed|Test Failed)', text, re.S):
            result[m.group(2)] = ('campaign' if m.group(1) in ('Signals', 'Faults') else 'campaign-full',
                                  'Passed' if m.group(4) == 'Test Passed' else 'Failed', m.group(3))
    print('| Case | Label | Fault | Outcome | Result, time |')
    print('|---|---|---|---|---|')
    order = sorted(result, key=lambda n: (result[n][0] != 'campaign', n))
    for name in order:
        label, res, secs = result[name]
        fault = FAULTS.get(name, FAULTS.get(name.split('_')[0], ''))
        print('| %s | %s | %s | %s | %s, %.2f s |' % (name, label, fault, outcome.get(name, '?'), res, float(secs)))


if __name__ == '__main__':
    main(sys.argv[1])
