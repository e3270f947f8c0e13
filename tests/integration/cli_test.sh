#!/usr/bin/env bash
echo TODO
